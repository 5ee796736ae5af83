// The API that the example extension puts into every frame as
// `window.tessmar` (extension/page-api.js). docs/page-reference.md describes
// the requests, the envelopes and the status words.

/** A request to the native side. "tabid" and "origin" are always replaced by the extension. */
export interface TessmarRequest {
  /** "native" for an ordinary request, "setcallback" to register a callback. */
  cmd?: 'native' | 'setcallback';
  /** "get_version" or "get_versions": answered from the installation, without a module. */
  init?: 'get_version' | 'get_versions';
  /** Echoed in the envelope; a request without it gets no answer. No quotes, backslashes or control characters. */
  id?: string;
  /** The module's name ("morrowhost" when absent). Same character rules as "id". */
  module?: string;
  /** The callback name a "setcallback" registers. Same character rules as "id". */
  callback?: string;
  /** Any other member goes to the module unchanged. */
  [member: string]: unknown;
}

/** The library's status words. */
export type TessmarStatus = 'TRUE' | 'FALSE' | 'CANCEL' | 'BLOCK:QX' | 'BLOCK:CLIENT';

/** The parsed reply envelope of a successful request. */
export interface TessmarEnvelope<Reply = unknown> {
  id?: string;
  tabid?: string;
  status: 'TRUE';
  /** The module's answer ({} when it gave none), or the parsed answer of an "init" query. */
  reply: Reply;
  callback?: string;
}

/** Every failure of request(). */
export interface TessmarError extends Error {
  /** A status word other than "TRUE", or "NO_ANSWER", "UNDELIVERED", "MALFORMED". */
  status: Exclude<TessmarStatus, 'TRUE'> | 'NO_ANSWER' | 'UNDELIVERED' | 'MALFORMED';
  reason: string;
}

export interface Tessmar {
  /** Resolves with the parsed envelope; rejects with a TessmarError. */
  request<Reply = unknown>(request: TessmarRequest): Promise<TessmarEnvelope<Reply>>;
  /** The text level: resolves with the reply text or null; rejects with an Error when undelivered. */
  invoke(request: TessmarRequest | string): Promise<string | null>;
  /** Calls `listener` with each callback text meant for this document; returns a function that removes it. */
  onCallback(listener: (text: string) => void): () => void;
  readonly TessmarError: new (status: string, reason: string) => TessmarError;
}

declare global {
  interface Window {
    readonly tessmar: Tessmar;
  }
}
