#!/usr/bin/env node
// Validates a bundle manifest.json against the service runtime's manifest schema (JSON Schema
// draft-04) with Ajv.
//   check-manifest.js [--expect-invalid] <schema.json> <manifest.json>
// Exit status 0 when the manifest is valid (with --expect-invalid: when it is rejected), 1
// otherwise, 2 when the schema or the manifest cannot be read.
'use strict';

const fs = require('fs');
const Ajv = require('ajv-draft-04');

function readJson(path, what) {
  if (!path || !fs.existsSync(path)) {
    console.error(
      `${what} not found${path ? ` at ${path}` : ''}` +
        (what === 'manifest schema'
          ? ': configure the build with -DOVERLAY_MANIFEST_SCHEMA=<path to ' +
            'cppmicroservices-manifest-schema.json>'
          : ''),
    );
    process.exit(2);
  }
  try {
    return { value: JSON.parse(fs.readFileSync(path, 'utf8')) };
  } catch (error) {
    return { error: `${path} is not valid JSON: ${error.message}` };
  }
}

function main(argv) {
  const expectInvalid = argv[0] === '--expect-invalid';
  const [schemaPath, manifestPath] = expectInvalid ? argv.slice(1) : argv;
  const schema = readJson(schemaPath, 'manifest schema');
  if (schema.error) {
    console.error(schema.error);
    return 2;
  }
  const manifest = readJson(manifestPath, 'manifest');
  // The runtime's schema uses "id" and a few keywords of its own, which strict mode refuses;
  // its patterns are written for non-Unicode regular expressions.
  const ajv = new Ajv({ allErrors: true, strict: false, unicodeRegExp: false });
  const validate = ajv.compile(schema.value);
  const valid = !manifest.error && validate(manifest.value);
  const problems = manifest.error || ajv.errorsText(validate.errors, { separator: '\n  ' });
  if (valid) {
    console.log(`${manifestPath}: valid against ${schemaPath}`);
  } else {
    console.log(`${manifestPath}: rejected:\n  ${problems}`);
  }
  return valid !== expectInvalid ? 0 : 1;
}

process.exit(main(process.argv.slice(2)));
