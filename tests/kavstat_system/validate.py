# validate.py SCHEMA DOCUMENT: whether the document is what the schema describes, and the schema a schema.
import json
import sys

import jsonschema

with open(sys.argv[1]) as file:
    schema = json.load(file)
with open(sys.argv[2]) as file:
    document = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
errors = list(jsonschema.Draft202012Validator(schema).iter_errors(document))
for error in errors[:10]:
    print("/".join(str(part) for part in error.absolute_path), error.message[:200])
sys.exit(1 if errors else 0)
