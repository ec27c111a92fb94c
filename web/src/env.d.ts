/** True only in the page built for the browser tests (VELKO_TEST_HOOKS=1); see vite.config.ts. */
declare const __VELKO_TEST_HOOKS__: boolean;
