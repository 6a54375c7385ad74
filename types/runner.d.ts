// The globals that scripts of a `vnjs::Runner` have beside those of vnjs.d.ts, for editors and for `tsc --checkJs`. What
// the host itself has defined is told by its `Runner::Declarations()`.

/**
 * Calls a function for each event of that name which the host sends. Several functions are called one after the other, in
 * the order in which they were added; one that throws keeps none of the others from being called. The same function may be
 * added more than once.
 *
 * @param event What the host calls the event.
 * @param handler Gets the event's values, a copy for each handler. What it throws is logged.
 * @example on('motion', (room, lux) => debugPrint(room, lux));
 */
declare function on(event: string, handler: (...values: any[]) => unknown): void;

/**
 * Takes a function back that was given to `on`, the last time that it was; nothing happens when it was not. An event that
 * goes round does not reach it any more.
 *
 * @param event What the host calls the event.
 * @param handler The same function.
 */
declare function off(event: string, handler: (...values: any[]) => unknown): void;

/**
 * Waits for the next event of that name.
 *
 * @param event What the host calls the event.
 * @returns The event's values.
 * @example const [room] = await once('motion');
 */
declare function once(event: string): Promise<any[]>;

/**
 * Calls a function when the host ends the script or loads it again. There is time for a few lines, such as `saveObject`;
 * what promises bring later does not come any more.
 *
 * @param handler What it throws is logged.
 */
declare function onStop(handler: () => unknown): void;
