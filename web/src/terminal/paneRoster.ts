// Which terminal view exists and which one is on screen. One view per
// session lives as long as the session (hidden while its project is in the
// background, so its output is never lost); each project remembers the
// session it showed last. A session the user asked for with "new terminal"
// is shown as soon as it appears in the project on screen.

export interface RosterChange {
  /** Sessions that need a view, in the order of the session list. */
  added: string[];
  /** Sessions whose view must go. */
  removed: string[];
  /** The session on screen for the project, if it has any. */
  current: string | undefined;
  /** Set when `current` is the session the user just asked for. */
  created: string | undefined;
}

export class PaneRoster {
  private readonly known = new Set<string>();
  /** The session shown per project ('' for no project). */
  private readonly chosen = new Map<string, string>();
  private awaitingCreated = false;

  /** The user asked for a new terminal; the next one to appear on screen is shown. */
  expectCreated(): void {
    this.awaitingCreated = true;
  }

  /** The user picked a session's tab. */
  choose(projectKey: string, sessionId: string): void {
    this.chosen.set(projectKey, sessionId);
  }

  /**
   * Takes the full session list and the sessions shown with the project on
   * screen (both in display order), and says what changed.
   */
  update(projectKey: string, sessions: readonly string[], visible: readonly string[]): RosterChange {
    const all = new Set(sessions);
    const removed = [...this.known].filter((id) => !all.has(id));
    for (const id of removed) this.known.delete(id);
    const added = sessions.filter((id) => !this.known.has(id));
    for (const id of added) this.known.add(id);

    let created: string | undefined;
    if (this.awaitingCreated) {
      // A session that appears in another project (the user switched away meanwhile) is not the one awaited here.
      created = added.find((id) => visible.includes(id));
      if (created) {
        this.awaitingCreated = false;
        this.chosen.set(projectKey, created);
      }
    }

    let current = this.chosen.get(projectKey);
    if (current === undefined || !visible.includes(current)) current = visible[visible.length - 1];
    if (current) this.chosen.set(projectKey, current);
    else this.chosen.delete(projectKey);
    return { added, removed, current, created };
  }
}
