// Drag to reorder within a bar of tabs keyed by `data-key`: while a tab is
// dragged, the tab under the pointer shows on which side of its middle the
// dragged one would land; a drop hands both keys and that side on.

export type TabDrop = (from: string, to: string, after: boolean) => void;

/** Returns what makes a tab of `bar` draggable. `dragText` is what the drag carries for other programs. */
export function tabReordering(bar: HTMLElement, drop: TabDrop, dragText: (tab: HTMLElement) => string): (tab: HTMLElement) => void {
  let dragged: string | undefined;
  const clearMarks = (el: Element) => el.classList.remove('drop-before', 'drop-after');
  return (tab) => {
    tab.addEventListener('dragstart', (ev) => {
      dragged = tab.dataset.key;
      if (ev.dataTransfer) ev.dataTransfer.effectAllowed = 'move';
      ev.dataTransfer?.setData('text/plain', dragText(tab));
      tab.classList.add('dragging');
    });
    tab.addEventListener('dragend', () => {
      dragged = undefined;
      tab.classList.remove('dragging');
      for (const el of bar.querySelectorAll('.drop-before, .drop-after')) clearMarks(el);
    });
    tab.addEventListener('dragover', (ev) => {
      if (!dragged || dragged === tab.dataset.key) return;
      ev.preventDefault();
      const after = dropsAfter(tab, ev);
      tab.classList.toggle('drop-after', after);
      tab.classList.toggle('drop-before', !after);
    });
    tab.addEventListener('dragleave', () => clearMarks(tab));
    tab.addEventListener('drop', (ev) => {
      ev.preventDefault();
      clearMarks(tab);
      const to = tab.dataset.key;
      if (dragged && to && dragged !== to) drop(dragged, to, dropsAfter(tab, ev));
    });
  };
}

function dropsAfter(tab: HTMLElement, ev: DragEvent): boolean {
  const rect = tab.getBoundingClientRect();
  return ev.clientX > rect.left + rect.width / 2;
}
