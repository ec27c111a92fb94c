// Terminal output arrives as standard base64; input that is not plain text
// leaves the same way. Newer engines decode natively, older ones via atob.

type FromBase64 = (text: string) => Uint8Array;

const native = (Uint8Array as unknown as { fromBase64?: FromBase64 }).fromBase64;

/** Decodes standard base64; invalid text gives undefined rather than throwing. */
export function decodeBase64(text: string): Uint8Array | undefined {
  try {
    if (native) return native.call(Uint8Array, text);
    const binary = atob(text);
    const bytes = new Uint8Array(binary.length);
    for (let i = 0; i < binary.length; i++) bytes[i] = binary.charCodeAt(i);
    return bytes;
  } catch {
    return undefined;
  }
}

export function encodeBase64(bytes: Uint8Array): string {
  let binary = '';
  const step = 0x8000;
  for (let i = 0; i < bytes.length; i += step) {
    binary += String.fromCharCode(...bytes.subarray(i, i + step));
  }
  return btoa(binary);
}

/** xterm.js hands binary input (some mouse reports) as a string of byte values. */
export function binaryStringToBase64(data: string): string {
  const bytes = new Uint8Array(data.length);
  for (let i = 0; i < data.length; i++) bytes[i] = data.charCodeAt(i) & 0xff;
  return encodeBase64(bytes);
}
