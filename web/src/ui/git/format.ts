// How the git views write dates and commit ids.

const pad = (n: number) => String(n).padStart(2, '0');

/** A commit date in local time, "2024-05-01 14:03"; text that is no date is shown as it came. */
export function formatDate(text: string | undefined): string {
  if (!text) return '';
  const d = new Date(text.replace(/^(\d{4}-\d\d-\d\d) (\d\d:\d\d:\d\d) ([+-]\d\d)(\d\d)$/, '$1T$2$3:$4'));
  if (Number.isNaN(d.getTime())) return text;
  return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ${pad(d.getHours())}:${pad(d.getMinutes())}`;
}

export const shortOid = (oid: string) => oid.slice(0, 7);
