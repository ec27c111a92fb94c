import { defineConfig } from 'vitest/config';

export default defineConfig({
  // The native scheme handler serves the build from app://bundle/, so every
  // asset reference must stay relative.
  base: './',
  build: {
    outDir: '../resources/web',
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
