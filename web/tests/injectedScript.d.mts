export function eventScript(type: string, payload: unknown): string;
