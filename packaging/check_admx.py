#!/usr/bin/env python3
"""Checks packaging/lindqvar.admx and en-US/lindqvar.adml against the code.

- Both files are well-formed XML.
- The registry values the agent reads from its settings key and its logging
  key (found in the sources, below) and the values the policies write are the
  same set, under the same keys, with the same type: a setting added to the
  code without a policy, or a policy for a value the agent does not read,
  fails. The preshared key must have no policy; LINDQState is written by
  the agent, not read.
- Every string, presentation and category the template names is defined,
  and every element of a policy has a control in its presentation.

Run from anywhere: python3 packaging/check_admx.py
"""
import re
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
ADMX = ROOT / "packaging" / "lindqvar.admx"
ADML = ROOT / "packaging" / "en-US" / "lindqvar.adml"
NS = "{http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions}"
NO_POLICY = {"presharedkey": "readable by every domain user in a policy",
             "lindqstate": "written by the agent"}

errors = []


def code_keys():
    """The agent's settings and logging keys, as the code names them."""
    text = (ROOT / "platform/win32/registry_values.h").read_text()
    keys = dict(re.findall(r'k(Agent|Logging)Key\[\] = u"([^"]+)"', text))
    return {name: path.replace("\\\\", "\\").lower() for name, path in keys.items()}


def code_values():
    """{(key, value name lower case): (spelling, "dword" | "string" | None)}."""
    keys = code_keys()
    found = {}
    patterns = [
        # The win32 helpers: an open key of the agent's settings, a named key,
        # or the agent-key shorthands.
        (r'Read(Dword|String)\(\s*key\.get\(\),\s*u"(\w+)"', lambda m: "Agent"),
        (r'Read(Dword|String)\(\s*HKEY_LOCAL_MACHINE,\s*(?:win32::)?k(Agent|Logging)Key,\s*u"(\w+)"',
         lambda m: m.group(2)),
        (r'ReadAgent(Dword|String)\(\s*u"(\w+)"', lambda m: "Agent"),
        # The portable code names the values of the agent's key as constants.
        (r'constexpr char16_t k\w*Value\w*\[\] = u"(\w+)"', lambda m: "Agent"),
    ]
    sources = [p for d in ("agent", "platform", "service", "tools", "identity", "session",
                           "protocol") for p in (ROOT / d).rglob("*") if p.suffix in (".cpp", ".h")]
    for path in sources:
        text = path.read_text(errors="replace")
        for pattern, key_of in patterns:
            for m in re.finditer(pattern, text):
                name = m.group(m.lastindex)
                kind = m.group(1).lower() if m.lastindex > 1 else None
                where = (keys[key_of(m)], name.lower())
                if kind and found.get(where, (None, None))[1] not in (None, kind):
                    errors.append(f"{name} is read both as REG_DWORD and as text in the code")
                if kind or where not in found:
                    found[where] = (name, kind)
    return found


def policy_values(admx):
    """{(key, value name lower case): (policy name, "dword" | "string" | "multi")}."""
    written = {}
    for policy in admx.iter(NS + "policy"):
        key = policy.get("key", "").lower()
        entries = []
        if policy.get("valueName"):
            entries.append((policy.get("valueName"), "dword"))
        for element in policy.findall(NS + "elements/*"):
            kind = {"text": "string", "multiText": "multi", "enum": "dword", "decimal": "dword",
                    "boolean": "dword"}.get(element.tag[len(NS):], element.tag[len(NS):])
            if element.tag == NS + "enum" and element.find(f".//{NS}string") is not None:
                kind = "string"
            entries.append((element.get("valueName") or "", kind))
        for name, kind in entries:
            where = (key, name.lower())
            if where in written:
                errors.append(f"policies {written[where][0]} and {policy.get('name')} both write {name}")
            written[where] = (policy.get("name"), kind)
    return written


def check_resources(admx, adml):
    strings = {s.get("id") for s in adml.iter(NS + "string")}
    presentations = {p.get("id"): p for p in adml.iter(NS + "presentation")}
    categories = {c.get("name") for c in admx.iter(NS + "category")}
    supported = {d.get("name") for d in admx.iter(NS + "definition")}
    for element in admx.iter():
        for attr, value in element.attrib.items():
            for ref in re.findall(r"\$\(string\.(\w+)\)", value):
                if ref not in strings:
                    errors.append(f"string {ref} is not in {ADML.name}")
    for policy in admx.iter(NS + "policy"):
        name = policy.get("name")
        for ref in policy.iter(NS + "parentCategory"):
            if ref.get("ref") not in categories:
                errors.append(f"policy {name}: no category {ref.get('ref')}")
        for ref in policy.iter(NS + "supportedOn"):
            if ref.get("ref") not in supported:
                errors.append(f"policy {name}: no supportedOn definition {ref.get('ref')}")
        ids = [e.get("id") for e in policy.findall(NS + "elements/*")]
        m = re.fullmatch(r"\$\(presentation\.(\w+)\)", policy.get("presentation", ""))
        if ids and not m:
            errors.append(f"policy {name} has elements but no presentation")
            continue
        if m and m.group(1) not in presentations:
            errors.append(f"presentation {m.group(1)} is not in {ADML.name}")
            continue
        controls = {c.get("refId") for c in presentations[m.group(1)].iter()} if m else set()
        for i in ids:
            if i not in controls:
                errors.append(f"policy {name}: element {i} has no control in its presentation")


def main():
    try:
        admx = ET.parse(ADMX).getroot()
        adml = ET.parse(ADML).getroot()
    except ET.ParseError as e:
        print(f"check_admx: not well-formed XML: {e}")
        return 1
    read = code_values()
    written = policy_values(admx)
    for where, (name, kind) in sorted(read.items()):
        if where[1] in NO_POLICY:
            if where in written:
                errors.append(f"policy {written[where][0]} writes {name}, which must have no policy "
                              f"({NO_POLICY[where[1]]})")
        elif where not in written:
            errors.append(f"the agent reads {name} under {where[0]}, but no policy writes it")
        elif kind == "dword" and written[where][1] != "dword":
            errors.append(f"{name} is a REG_DWORD, policy {written[where][0]} writes text")
        elif kind == "string" and written[where][1] == "dword":
            errors.append(f"{name} is text, policy {written[where][0]} writes a REG_DWORD")
    for where, (policy, _) in sorted(written.items()):
        if where not in read:
            errors.append(f"policy {policy} writes {where[1]} under {where[0]}, "
                          "which the agent does not read there")
    check_resources(admx, adml)
    for e in errors:
        print(f"check_admx: {e}")
    if not errors:
        print(f"check_admx: {len(written)} policies, one for each value the agent reads")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
