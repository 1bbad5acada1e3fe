#!/usr/bin/env python3
"""docs/check_docs.py XML_DIR: names every enumerator that doxygen found no documentation for (it does not warn of them)."""
import pathlib
import sys
import xml.etree.ElementTree as xml

missing = []
for path in sorted(pathlib.Path(sys.argv[1]).glob("*.xml")):
    for member in xml.parse(path).iter("memberdef"):
        for value in member.findall("enumvalue") if member.get("kind") == "enum" else []:
            if not any("".join(value.find(part).itertext()).strip() for part in ("briefdescription", "detaileddescription")):
                missing.append(f"{member.find('location').get('file')}: {value.findtext('name')} is not documented")
print("\n".join(sorted(set(missing))))
sys.exit(1 if missing else 0)
