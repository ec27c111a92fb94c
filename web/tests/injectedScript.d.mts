export function eventScript(type: string, payload: unknown): string;
export function dropScript(paths: string[], timestamp?: number): string;
