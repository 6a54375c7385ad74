// The globals that vnjs gives to scripts beside those of JavaScript itself, for editors and for `tsc --checkJs`.
//
// Paths are relative to the storage directory of the environment. Where a function is said to throw, a script gets an
// `Error` with that message.

// --- Timers -----------------------------------------------------------------------------------------------------

/**
 * Calls a function once, after a delay. Timers go in steps of 25 milliseconds; a delay of 0 means as soon as what runs
 * now is done.
 *
 * @param callback Gets the timer's id. What it throws is logged.
 * @param milliseconds Not optional: without it nothing happens.
 * @returns The timer's id; undefined, and no timer, when `callback` is no function or the delay is negative.
 * @example const off = setTimeout(() => debugPrint('light off'), 300);
 */
declare function setTimeout(callback: (id: number) => void, milliseconds: number): number;

/**
 * Calls a function again and again. A callback that throws is called again all the same. Calls that come due while the
 * script is busy wait and then come one after the other, also when the interval is cleared by then.
 *
 * @param callback Gets the timer's id. What it throws is logged.
 * @param milliseconds Time from one call to the next, more than 0.
 * @returns The timer's id; undefined, and no timer, when `callback` is no function or the delay is not positive.
 * @example setInterval(() => debugPrint(fs.loadText('/temperature')), 60000);
 */
declare function setInterval(callback: (id: number) => void, milliseconds: number): number;

/**
 * Takes a timeout back. An id that is none, or none any more, is ignored. A call that is due already still comes.
 *
 * Throws "clearTimeout()/clearInterval() mismatch" for the id of an interval, which goes on.
 *
 * @param id What `setTimeout` gave.
 */
declare function clearTimeout(id?: number): void;

/**
 * Takes an interval back. An id that is none, or none any more, is ignored. A call that is due already still comes.
 *
 * Throws "clearTimeout()/clearInterval() mismatch" for the id of a timeout, which goes on.
 *
 * @param id What `setInterval` gave.
 */
declare function clearInterval(id?: number): void;

// --- The log ----------------------------------------------------------------------------------------------------

/**
 * Writes one line to the host's log: the values as text, with a blank between. Null and undefined are empty texts, and
 * objects read "[object Object]"; `console.log` shows what is in them. Without a value it writes nothing.
 *
 * @example debugPrint('hall:', 21.5, 'degrees');
 */
declare function debugPrint(...values: any[]): void;

/** What of the engine's console goes to the host's log. Its other functions reach an attached debugger at most. */
interface Console {
  /** Writes one line to the host's log: texts as they are, all else readably: `console.log({on: true})`. */
  log(...values: any[]): void;
  /** The same as `log`. */
  info(...values: any[]): void;
  /** The same as `log`. */
  debug(...values: any[]): void;
  /** Like `log`, but as an error. */
  warn(...values: any[]): void;
  /** Like `log`, but as an error. An `Error` is shown with its stack. */
  error(...values: any[]): void;
}

declare var console: Console;

// --- The environment --------------------------------------------------------------------------------------------

/** The global object, the same as `globalThis`. */
declare var global: typeof globalThis;

/**
 * Ends the environment: no timer and no callback comes any more. The running script goes on to its end.
 */
declare function exit(): void;

/**
 * Runs what is due now, inside the calling script: callbacks of timers, in their order. What they throw is logged.
 */
declare function processPendingCallbacks(): void;

/**
 * Runs code in the same global scope: what it declares with `var` or `function` is there afterwards.
 *
 * Throws what the code throws, as an `Error` with its text only.
 *
 * @param code With an empty text nothing happens.
 * @param name What the code is called in errors and logs.
 * @returns The value as text: JSON, "undefined", or a function's source.
 * @example JSON.parse(executeJS('[1, 2, 3].map((n) => n * n)', 'squares'))  // [1, 4, 9]
 */
declare function executeJS(code: string, name?: string): string;

/**
 * Runs a file in the same global scope, as `executeJS` runs a text.
 *
 * Throws "Failed to open file: …", and what the code throws, as an `Error` with its text only.
 *
 * @param path Joined to the storage directory as it is; here, "../" leads out of it.
 * @returns The value as text: JSON, "undefined", or a function's source.
 * @example executeFile('rooms.js');
 */
declare function executeFile(path: string): string;

/**
 * Looks a path up from the global object. The way ends at a value that is missing or false, which is the result then.
 *
 * @param path Names with dots between. The empty path is the global object.
 * @example evalPath('house.hall.light')
 */
declare function evalPath(path: string): any;

/** Which vnjs this is. */
interface VornVersion {
  /** "v" and the number of the release. */
  release: string;
  /** When it was built: date, time and offset from UTC. */
  date: string;
  /** The source revision, 40 hexadecimal digits. */
  commit: string;
}

/** Which vnjs this is. */
declare var vornVersion: VornVersion;

/** Which vnjs this is, as a new object. */
declare function $vornVersion(): VornVersion;

// --- Stored objects ---------------------------------------------------------------------------------------------

/**
 * The value that was saved under a name, or null when there is none.
 *
 * Throws "Invalid arguments" for an empty name, a `SyntaxError` when the file holds no JSON, and the system's message
 * when it cannot be read.
 *
 * @example const state = loadObject('shutters') || {position: 0};
 */
declare function loadObject(name: string): any;

/**
 * Keeps a value over restarts, as JSON in a file of its own under "storage/" of the storage directory. It is on the
 * disk when this returns; a power failure leaves the old value or the new one. Does nothing when that folder is missing.
 *
 * Throws "Invalid arguments" for an empty name or any other number of arguments than two, a `TypeError` for an object
 * that contains itself, and the system's message when the file cannot be written.
 *
 * @param value Null, undefined, and what JSON does not know (a function, or an object that contains itself) remove what
 *     was saved.
 * @example saveObject('shutters', {position: 40});
 */
declare function saveObject(name: string, value: any): void;

// --- Dictionaries -----------------------------------------------------------------------------------------------

/**
 * An object whose names have no letter case: `d.host`, `d.Host` and `d['HOST']` are the same entry. An entry is spelled
 * as it was last assigned. Only A to Z have a case.
 *
 * Names that every object has, such as `hasOwnProperty`, are undefined; `Object.keys(d)` lists the entries, while
 * `Object.entries(d)` and `{...d}` have `toString` as well.
 */
interface NameValueDictionary {
  [name: string]: any;
  /** "[object NameValueDictionary]". */
  toString(): string;
}

declare var NameValueDictionary: {
  /**
   * Throws "Should be called as constructor" without `new`.
   *
   * @param initial Entries to begin with. Only the first dictionary of an environment takes them; all later ones start
   *     empty, so `Object.assign(new NameValueDictionary(), entries)` is what always works.
   */
  new (initial?: object): NameValueDictionary;
};

// --- Files ------------------------------------------------------------------------------------------------------

/** What `fs.stat` tells. */
type VFileStatus = {type: 'dir'} | {
  type: 'file';
  /** In bytes; the low 32 bits of it. */
  size: number;
};

/**
 * The files under the storage directory, to be read. Everything here throws "Invalid arguments" for an empty path and
 * for one that leaves the storage directory. A "." on the way counts as a step up, as ".." does: better use neither.
 */
interface VFileSystem {
  /**
   * What is in a folder, in no order; empty for a file, undefined when there is nothing of that name.
   *
   * @example (fs.list('/') || []).filter((name) => name.endsWith('.xml'))
   */
  list(path: string): string[] | undefined;
  /** Whether a path is a folder or a file; undefined when there is none that can be read. */
  stat(path: string): VFileStatus | undefined;
  /** What the JSON in a file says. Throws a `SyntaxError` for other text, and "Failed to open file: …". */
  loadJSON(path: string): any;
  /** The bytes of a file, one character for each. Throws "Failed to open file: …". */
  load(path: string): string;
  /** A file as UTF-8, up to its first zero byte. Throws "Failed to open file: …". */
  loadText(path: string): string;
}

/** The files under the storage directory, to be read. */
declare var fs: VFileSystem;

// --- Commands ---------------------------------------------------------------------------------------------------

/**
 * Runs a shell command and waits for its end. What the script may run, the file ".syscommands" in the storage directory
 * tells: a command has to begin with one of its lines; those that begin with "#" are comments.
 *
 * Throws "System commands are not configured" without that file, "This command is denied by policy", "Command timeout"
 * for one that goes on printing for 20 seconds, "Invalid arguments", and the system's message when it cannot start.
 *
 * @param command For the shell. Only this is compared with the policy.
 * @param args Put behind the command with blanks between; one with a blank in it is put into double quotes. The shell
 *     reads them: nothing that comes from outside belongs here.
 * @returns The wait status, which is 256 times the exit code or the number of the signal that ended it; and what the
 *     command printed on its standard output, up to the first zero byte.
 * @example const [status, output] = system('uptime');
 */
declare function system(command: string, ...args: any[]): [status: number, output: string];

// --- XML --------------------------------------------------------------------------------------------------------

/** What an element is built from: any object that looks so. */
interface VXmlElement {
  name: string;
  attributes?: {[name: string]: any};
  children?: VXmlElement[];
  /** Put behind the children. */
  text?: string;
}

/** The attributes of an element, by name. Assign to add or change, `delete` to remove. */
interface VXmlAttributes {
  [name: string]: string | undefined;
}

/**
 * An element. Two reads of the same one give two objects. When the element is removed, all of them answer undefined and
 * change nothing.
 */
interface VXmlNode {
  /** Without prefix. */
  readonly name: string;
  /** Undefined when there are elements inside. Assigning replaces all that is inside. */
  get text(): string | undefined;
  set text(value: any);
  /** Undefined when there are none. */
  readonly attributes: VXmlAttributes | undefined;
  /** The elements inside, undefined when there are none. */
  readonly children: VXmlNode[] | undefined;
  /** Null for the root. */
  readonly parent: VXmlNode | null;
  readonly document: VXmlDocument;

  /**
   * Adds a copy of an element.
   *
   * Throws "Invalid node object" for what is none, "Text contains a character that XML cannot represent", "XML is
   * nested too deeply" and "XML is too large".
   *
   * @param element Another element's object, or a plain one.
   * @param position Before the element inside of this index; without it, at the end.
   * @example room.insertChild({name: 'lamp', attributes: {id: 3}, text: 'garden'}, 0);
   */
  insertChild(element: VXmlNode | VXmlElement, position?: number): true;
  /**
   * Removes the first of the elements inside, whatever the index.
   *
   * Throws "Invalid argument" when the index is no number from 0 on.
   *
   * @returns Whether there was one.
   */
  removeChild(index: number): boolean;
  /** As that of the document, from this element. */
  findOne<Found extends VXmlNode | string = VXmlNode>(
      xpath: string, prefixes?: {[prefix: string]: string}): Found | null | undefined;
  /** As that of the document, from this element. */
  findAll<Found extends VXmlNode | string = VXmlNode>(
      xpath: string, prefixes?: {[prefix: string]: string}): Found[];
}

/** An XML document. */
interface VXmlDocument {
  readonly isXML: true;
  /** The root element. Assigning an element or an object like one replaces it; what is none is ignored. */
  get root(): VXmlNode | undefined;
  set root(value: VXmlNode | VXmlElement | undefined);
  /** The document as indented text. */
  toString(): string;
  /**
   * Searches with XPath 1.0. An element is found as its object; an attribute, a text, and what the expression
   * calculates as text, even numbers. Say so where you expect one: `Number(doc.findOne('count(//lamp)'))`, or with a comment
   * `@type {string[]}` at the variable.
   *
   * Throws "Invalid argument" when the expression is no text.
   *
   * @param prefixes What the prefixes in the expression stand for.
   * @returns The first one; null when nothing was found, undefined when the expression is wrong.
   * @example doc.findOne('//w:forecast', {w: 'urn:weather'})
   */
  findOne<Found extends VXmlNode | string = VXmlNode>(
      xpath: string, prefixes?: {[prefix: string]: string}): Found | null | undefined;
  /**
   * Searches like `findOne`.
   *
   * Throws "Invalid argument" when the expression is no text, and "XPath result is too large".
   *
   * @returns All that was found; nothing when the expression is wrong.
   */
  findAll<Found extends VXmlNode | string = VXmlNode>(
      xpath: string, prefixes?: {[prefix: string]: string}): Found[];
}

declare var VXmlDocument: {
  /**
   * Throws "XML error at line L, col C: …" for a text that is no XML, "Invalid args" for what is no text, and
   * "Invalid VXmlDocument usage" without `new`.
   *
   * @param text Without it the document is empty.
   * @example new VXmlDocument(fs.loadText('/forecast.xml'))
   */
  new (text?: string): VXmlDocument;
};
