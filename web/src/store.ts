// A value with subscribers. Views read the whole value and update the DOM;
// state changes only through pure functions of the state modules.

export class Store<S> {
  private readonly listeners = new Set<(state: S, prev: S) => void>();

  constructor(private state: S) {}

  get(): S {
    return this.state;
  }

  set(next: S): void {
    if (next === this.state) return;
    const prev = this.state;
    this.state = next;
    for (const listener of [...this.listeners]) listener(next, prev);
  }

  update(change: (state: S) => S): void {
    this.set(change(this.state));
  }

  subscribe(listener: (state: S, prev: S) => void): () => void {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }
}
