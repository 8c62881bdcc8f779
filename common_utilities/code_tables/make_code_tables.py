#!/usr/bin/env python3
"""Writes the device's country and language tables from Debian's iso-codes data.

usage: make_code_tables.py ISO_CODES_JSON_DIR FIPS_TABLE COUNTRY_OUT LANGUAGE_OUT

Country table, one country a line: FIPS,alpha-2,alpha-3,numeric-3, then the English name
(behind the fourth comma, which readers ignore). The FIPS column comes from our own table, which
must name every ISO entry; an entity FIPS has no code for gets an empty first column.

Language table, one language a line: bibliographic alpha-3|terminology alpha-3|alpha-2|English
name|. Both alpha-3 columns are always filled (they are the same code for most languages), so a
code of either kind finds its row; alpha-2 is empty for the languages that have none.
"""

import json
import sys
from pathlib import Path


def fail(message):
    sys.exit(f"make_code_tables: {message}")


def read_fips(path):
    fips = {}
    for number, line in enumerate(Path(path).read_text(encoding="utf-8").splitlines(), 1):
        line = line.split("#", 1)[0].split()
        if not line:
            continue
        if len(line) != 2:
            fail(f"{path}:{number}: expected 'ALPHA2 FIPS'")
        alpha2, code = line
        if alpha2 in fips:
            fail(f"{path}:{number}: {alpha2} listed twice")
        fips[alpha2] = "" if code == "-" else code
    return fips


def entries(json_dir, name, key):
    return json.loads((Path(json_dir) / name).read_text(encoding="utf-8"))[key]


def check_field(text, separator, where):
    if separator in text or "\n" in text:
        fail(f"{where}: '{text}' holds the column separator")
    return text


def country_lines(json_dir, fips):
    countries = entries(json_dir, "iso_3166-1.json", "3166-1")
    missing = sorted(c["alpha_2"] for c in countries if c["alpha_2"] not in fips)
    if missing:
        fail("the FIPS table lacks " + ", ".join(missing))
    for c in countries:
        codes = [fips[c["alpha_2"]], c["alpha_2"], c["alpha_3"], c["numeric"]]
        yield ",".join(check_field(code, ",", c["name"]) for code in codes) + "," + c["name"]


def language_lines(json_dir):
    for lang in entries(json_dir, "iso_639-2.json", "639-2"):
        terminology = lang["alpha_3"]
        columns = [lang.get("bibliographic", terminology), terminology,
                   lang.get("alpha_2", ""), lang["name"]]
        yield "".join(check_field(column, "|", lang["name"]) + "|" for column in columns)


def write(path, header, lines):
    text = "".join(f"# {line}\n" if line else "#\n" for line in header)
    text += "".join(line + "\n" for line in lines)
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    Path(path).write_text(text, encoding="utf-8")


def main(argv):
    if len(argv) != 5:
        fail("usage: make_code_tables.py ISO_CODES_JSON_DIR FIPS_TABLE COUNTRY_OUT LANGUAGE_OUT")
    json_dir, fips_table, country_out, language_out = argv[1:]
    source = "Generated at build time from Debian's iso-codes data"
    write(country_out,
          ["ISO 3166-1 countries: FIPS 10-4,alpha-2,alpha-3,numeric-3,English name",
           source + " and our FIPS 10-4 table.",
           "An empty FIPS column: FIPS 10-4 has no code for the entity as ISO 3166-1 draws it."],
          country_lines(json_dir, read_fips(fips_table)))
    write(language_out,
          ["ISO 639-2 languages: bibliographic alpha-3|terminology alpha-3|alpha-2|English name|",
           source + ".", "alpha-2 is empty where ISO 639-1 has no code for the language."],
          language_lines(json_dir))


if __name__ == "__main__":
    main(sys.argv)
