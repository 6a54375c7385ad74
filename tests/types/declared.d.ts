declare function forecast(city: string): Promise<any>;
declare const lamp: {
  (on: boolean): void;
  readonly group: {
    all(): Array<Record<string, number>>;
  };
  set(room: string, level: number): void;
};
declare function publish(topic: string, payload: any): void;
declare function readMeter(id: number): number | undefined;
declare function serial(id: number | bigint): number | bigint;
declare function subscribe(topic: string): void;
declare function wait(first: number | undefined | null, then: boolean, last?: string | undefined | null): void;
