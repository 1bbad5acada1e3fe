#!/usr/bin/env python3
"""docs/check_docs.py XML_DIR: names what doxygen does not warn of.

Enumerators without documentation, and headers without a comment of their own (@file): of those it leaves all global names out.
"""
import pathlib
import sys
import xml.etree.ElementTree as xml

missing = []
for path in sorted(pathlib.Path(sys.argv[1]).glob("*.xml")):
    tree = xml.parse(path)
    for compound in tree.iter("compounddef"):
        if compound.get("kind") == "file" and compound.findtext("compoundname").endswith(".h"):
            if not any("".join(compound.find(part).itertext()).strip() for part in ("briefdescription", "detaileddescription")):
                missing.append(f"{compound.find('location').get('file')}: no @file comment, so its global names are left out")
    for member in tree.iter("memberdef"):
        for value in member.findall("enumvalue") if member.get("kind") == "enum" else []:
            if not any("".join(value.find(part).itertext()).strip() for part in ("briefdescription", "detaileddescription")):
                missing.append(f"{member.find('location').get('file')}: {value.findtext('name')} is not documented")
print("\n".join(sorted(set(missing))))
sys.exit(1 if missing else 0)
