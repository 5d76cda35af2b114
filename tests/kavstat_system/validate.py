# validate.py SCHEMA DOCUMENT: checks that the schema is valid and that the document conforms to it.
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
