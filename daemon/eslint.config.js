// The service's lint: ESLint's recommended rules over the service, its hook
// and its tests, all Node.js ES modules.

import js from '@eslint/js';
import globals from 'globals';

export default [
  { ignores: ['node_modules/', 'test/tools/node_modules/'] },
  js.configs.recommended,
  {
    files: ['**/*.js', '**/*.mjs'],
    languageOptions: { ecmaVersion: 2024, sourceType: 'module', globals: { ...globals.node } },
    linterOptions: { reportUnusedDisableDirectives: 'error' },
    // Leaving keys out of a copy by destructuring them away is how the service drops fields.
    rules: { 'no-unused-vars': ['error', { ignoreRestSiblings: true }] },
  },
];
