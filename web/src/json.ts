// Narrowing helpers for values that arrive from the native side. Every event
// payload is untrusted: a field of the wrong JSON type counts as absent, so
// a malformed event is dropped instead of breaking a panel.

export type JsonObject = Record<string, unknown>;

export function isObject(value: unknown): value is JsonObject {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

export function str(obj: JsonObject, key: string): string | undefined {
  const v = obj[key];
  return typeof v === 'string' ? v : undefined;
}

export function num(obj: JsonObject, key: string): number | undefined {
  const v = obj[key];
  return typeof v === 'number' && Number.isFinite(v) ? v : undefined;
}

export function bool(obj: JsonObject, key: string): boolean | undefined {
  const v = obj[key];
  return typeof v === 'boolean' ? v : undefined;
}

export function arr(obj: JsonObject, key: string): unknown[] | undefined {
  const v = obj[key];
  return Array.isArray(v) ? v : undefined;
}

/** A list of strings; entries of another type are skipped. */
export function strings(obj: JsonObject, key: string): string[] | undefined {
  const list = arr(obj, key);
  return list?.filter((v): v is string => typeof v === 'string');
}

/** A list of objects mapped by `parse`; entries it rejects are skipped. */
export function objects<T>(obj: JsonObject, key: string, parse: (o: JsonObject) => T | undefined): T[] | undefined {
  const list = arr(obj, key);
  if (!list) return undefined;
  const out: T[] = [];
  for (const item of list) {
    if (!isObject(item)) continue;
    const parsed = parse(item);
    if (parsed !== undefined) out.push(parsed);
  }
  return out;
}

const UUID_RE = /^[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}$/;

/** Ids cross the bridge as UUID text; we compare them in upper case. */
export function uuid(obj: JsonObject, key: string): string | undefined {
  const v = str(obj, key);
  return v !== undefined && UUID_RE.test(v) ? v.toUpperCase() : undefined;
}
