#!/usr/bin/python3
"""validate.py SCHEMA DOCUMENTS: every JSON document in the second file, one behind the other, must be as the schema says,
and must say no more than that: clients are told to expect more, the tests want what is new to be written down."""

import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
for definition in schema["$defs"].values():
    parts = [definition, definition.get("items", {})]
    for part in parts:
        if part.get("type") == "object":
            part["unevaluatedProperties"] = False
validator = jsonschema.Draft202012Validator(schema)

with open(sys.argv[2], encoding="utf-8") as file:
    text = file.read()
decoder = json.JSONDecoder()
position = count = failures = 0
while position < len(text):
    document, end = decoder.raw_decode(text, position)
    for error in validator.iter_errors(document):
        best = jsonschema.exceptions.best_match([error])
        print(document["schema"], best.json_path, best.message)
        failures += 1
    count += 1
    position = end + len(text[end:]) - len(text[end:].lstrip())
print(count, "documents,", failures, "faults")
sys.exit(failures != 0 or count == 0)
