// sarif.js FILE: holds a SARIF file against the schema of its standard.
'use strict';
const Ajv = require('ajv');
const ajv = new Ajv({schemaId: 'id', meta: false});
ajv.addMetaSchema(require('ajv/lib/refs/json-schema-draft-04.json'));
if (!ajv.validate(require('@microsoft/jest-sarif/lib/schemas/sarif-2.1.0-rtm.5.json'), JSON.parse(require('fs').readFileSync(process.argv[2])))) {
  console.error(ajv.errorsText());
  process.exit(1);
}
