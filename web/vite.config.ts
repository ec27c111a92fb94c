import { defineConfig } from 'vitest/config';

// VELKO_TEST_HOOKS=1 builds the page the browser tests and the benchmark
// drive: it exposes the app and its terminals as window.__velkoTest. The
// shipped build leaves the handle out entirely.
const testHooks = process.env.VELKO_TEST_HOOKS === '1';

export default defineConfig({
  define: { __VELKO_TEST_HOOKS__: JSON.stringify(testHooks) },
  // The native scheme handler serves the build from app://bundle/, so every
  // asset reference must stay relative.
  base: './',
  build: {
    outDir: testHooks ? 'dist-test' : '../resources/web',
    // Flat output: the native scheme handler falls back to looking a file up
    // by its last path component in the page's folder, whichever way it
    // rewrote the asset references.
    assetsDir: '',
    emptyOutDir: true,
    target: 'es2022',
    chunkSizeWarningLimit: 2048,
  },
  test: {
    environment: 'happy-dom',
    include: ['tests/unit/**/*.test.ts'],
  },
});
