"""Reads and checks a catalogue: a JSON file with the store's countries, apps, products, users and invoices.

All errors are reported at once, each with its line and how to correct it.
"""
import base64
import datetime
import difflib
import json
import pathlib
from collections.abc import Iterator

import jsonschema

from .faults import RESERVED
from .json_lines import Path, lines_of

_HERE = pathlib.Path(__file__).parents[1]
DEFAULT_FILE = _HERE / "catalogue.json"
LARGEST_FILE = 16 << 20


def _with_definitions(schema: object, definitions: dict) -> object:
    """@return the schema with each "$ref" replaced by its definition: the validator would resolve it for each value"""
    if isinstance(schema, list):
        return [_with_definitions(part, definitions) for part in schema]
    if not isinstance(schema, dict):
        return schema
    named = definitions.get(schema.get("$ref", "").removeprefix("#/$defs/"), {})
    merged = {**{key: part for key, part in schema.items() if key != "$ref"}, **named}
    return {key: _with_definitions(part, definitions) for key, part in merged.items()}


def _read_schema() -> object:
    read = json.loads((_HERE / "catalogue.schema.json").read_text(encoding="utf-8"))
    return _with_definitions(read, read.pop("$defs"))


_SCHEMA = _read_schema()


class CatalogueError(Exception):
    """The errors in a catalogue, one a line: file, line, cause and correction."""


def load(file: pathlib.Path) -> dict:
    """Reads a catalogue, and the bodies of answers from the files that it names. @throw CatalogueError"""
    try:
        if file.stat().st_size > LARGEST_FILE:
            raise CatalogueError(f"{file}: larger than 16 MiB; leave out what no test needs")
        text = file.read_text(encoding="utf-8")
    except OSError as error:
        raise CatalogueError(f"{file}: {error.strerror}; name a catalogue that can be read") from None
    except UnicodeDecodeError as error:
        raise CatalogueError(f"{file}: byte {error.start + 1} is not UTF-8; save it as UTF-8") from None
    return parse(text, str(file), file.parent)


def parse(text: str, name: str, folder: pathlib.Path) -> dict:
    """@param name the catalogue's name in errors
    @param folder where the relative paths of `answers` begin
    @throw CatalogueError"""
    try:
        catalogue = json.loads(text, object_pairs_hook=_refuse_duplicates, parse_constant=_refuse_constant)
        _refuse_problems(catalogue, text, name, folder)
    except json.JSONDecodeError as error:
        raise CatalogueError(
            f"{name}:{error.lineno}: no valid JSON ({error.msg}); look at column {error.colno} and just before it"
        ) from None
    except _DuplicateName as error:
        raise CatalogueError(f"{name}: the name {error} stands twice in one object; take one out") from None
    except _NoJsonNumber as error:
        raise CatalogueError(f"{name}: {error} is no JSON; write a number or null") from None
    except RecursionError:
        raise CatalogueError(
            f"{name}: nested too deep for a catalogue; start from the sample, which `billing-lab seed --help` names"
        ) from None
    return _with_bodies(catalogue, folder)


def _refuse_problems(catalogue: object, text: str, name: str, folder: pathlib.Path) -> None:
    problems = list(_against_schema(catalogue)) or list(_against_itself(catalogue, folder))
    if problems:
        lines = lines_of(text)
        # The validator reports an object once for each member that it lacks: the set removes the repetitions.
        numbered = sorted({(lines.get(path, 1), problem) for path, problem in problems})
        raise CatalogueError("\n".join(f"{name}:{line}: {problem}" for line, problem in numbered))


class _DuplicateName(Exception):
    """An object has two members of this name."""


class _NoJsonNumber(Exception):
    """NaN or Infinity, which Python's json module would accept."""


def _refuse_constant(name: str) -> None:
    raise _NoJsonNumber(name)


def _refuse_duplicates(pairs: list) -> dict:
    read = dict(pairs)
    if len(read) < len(pairs):
        names = [name for name, _ in pairs]
        raise _DuplicateName(json.dumps(next(name for name in names if names.count(name) > 1)))
    return read


_FORMATS = jsonschema.FormatChecker(formats=())


@_FORMATS.checks("utc-time", raises=ValueError)
def _is_time(text: object) -> bool:
    """@return True. @throw ValueError for a date that does not exist: the schema's pattern checks digits only"""
    if isinstance(text, str) and text.endswith("Z"):
        datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ")
    return True


# First step: the schema. The second step may rely on the members that the schema demands.


def _against_schema(catalogue: object) -> Iterator[tuple[Path, str]]:
    validator = jsonschema.Draft202012Validator(_SCHEMA, format_checker=_FORMATS)
    for error in validator.iter_errors(catalogue):
        yield from _problems_of(error)


def _problems_of(error: jsonschema.ValidationError) -> Iterator[tuple[Path, str]]:
    path = tuple(error.absolute_path)
    where = _path_text(path)
    if error.validator == "required":
        missing = [name for name in error.validator_value if name not in error.instance]
        yield path, f"{where} lacks {_joined(missing)}; add {'it' if len(missing) == 1 else 'them'}"
    elif error.validator == "additionalProperties" and isinstance(error.validator_value, bool):
        known = list(error.schema["properties"])
        for name in error.instance:
            if name not in known:
                close = difflib.get_close_matches(name, known, 1)
                cure = f"did you mean {json.dumps(close[0])}?" if close else f"known are {_joined(known)}"
                yield (*path, name), f"{where} has an unknown member {json.dumps(name)}; {cure}"
    elif "propertyNames" in error.absolute_schema_path:
        yield (*path, error.instance), f"{json.dumps(error.instance)} in {where}: {_correction(error)}"
    else:
        yield path, f"{where} is {_shortened(error.instance)}; {_correction(error)}"


def _correction(error: jsonschema.ValidationError) -> str:
    if error.validator == "enum":
        return f"write one of {_joined(error.validator_value)}"
    if error.validator in ("minItems", "minProperties"):
        return "put at least one in"
    if "description" in error.schema:
        return f"write {error.schema['description']}"
    kind = {"object": "an object { }", "array": "a list [ ]", "string": "a text in quotes", "boolean": "true or false"}.get(
        str(error.validator_value), str(error.validator_value)
    )
    return f"write {kind}"


def _path_text(path: Path) -> str:
    if not path:
        return "the catalogue"
    return "".join(f"[{part}]" if isinstance(part, int) else f".{part}" for part in path).lstrip(".")


def _joined(names: list) -> str:
    return ", ".join(json.dumps(name) for name in names)


def _shortened(value: object) -> str:
    text = json.dumps(value, ensure_ascii=False)
    return text if len(text) <= 60 else text[:57] + "..."


# Second step: references from one part of the catalogue to another.


def _against_itself(catalogue: dict, folder: pathlib.Path) -> Iterator[tuple[Path, str]]:
    yield from _duplicate_ids(catalogue)
    yield from _products(catalogue)
    yield from _invoices(catalogue)
    yield from _answers(catalogue, folder)


def _duplicate_ids(catalogue: dict) -> Iterator[tuple[Path, str]]:
    lists: list[tuple[Path, list, str]] = [
        (("apps",), catalogue["apps"], "id"),
        (("users",), catalogue["users"], "uid"),
        (("users",), catalogue["users"], "guid"),
        (("invoices",), catalogue.get("invoices", []), "id"),
    ]
    lists += [(("apps", i, "products"), app["products"], "id") for i, app in enumerate(catalogue["apps"])]
    for path, items, key in lists:
        seen: set[str] = set()
        for i, item in enumerate(items):
            if item[key] in seen:
                yield (
                    (*path, i, key),
                    f"{_path_text((*path, i, key))} {json.dumps(item[key])} is there already; give it another",
                )
            seen.add(item[key])


def _products(catalogue: dict) -> Iterator[tuple[Path, str]]:
    for i, app in enumerate(catalogue["apps"]):
        for j, product in enumerate(app["products"]):
            path = ("apps", i, "products", j)
            if product["id"].startswith(RESERVED):
                yield (*path, "id"), (f"ids that begin with {RESERVED} force outcomes and are never listed; name it otherwise")
            for country in product["prices"]:
                if country not in catalogue["countries"]:
                    yield (
                        (*path, "prices", country),
                        f"{json.dumps(country)} is none of the countries; add it there, or take this price out",
                    )


def _invoices(catalogue: dict) -> Iterator[tuple[Path, str]]:
    products = {app["id"]: {product["id"] for product in app["products"]} for app in catalogue["apps"]}
    users = {user["uid"] for user in catalogue["users"]}
    for i, invoice in enumerate(catalogue.get("invoices", [])):
        known = (
            ("user", users, "users"),
            ("app", products, "apps"),
            ("product", products.get(invoice["app"], ()), "app's products"),
            ("country", catalogue["countries"], "countries"),
        )
        for key, names, what in known:
            if invoice[key] not in names:
                yield (
                    ("invoices", i, key),
                    f"invoices[{i}].{key} {json.dumps(invoice[key])} is none "
                    f"of the {what}; add it there, or name one of {_joined(sorted(names))}",
                )


def _answers(catalogue: dict, folder: pathlib.Path) -> Iterator[tuple[Path, str]]:
    for endpoint, answer in catalogue.get("answers", {}).items():
        path = ("answers", endpoint)
        if len({"text", "json", "base64", "file"} & set(answer)) != 1:
            yield path, f'{_path_text(path)} needs exactly one of "text", "json", "base64" and "file"'
        elif "file" in answer and not (folder / answer["file"]).is_file():
            yield ((*path, "file"), f"there is no file {folder / answer['file']}; its path begins at the catalogue's folder")
        elif len(answer.get("base64", "")) % 4:
            yield (*path, "base64"), f"{_path_text(path)}.base64 is no Base64; its length must be a multiple of four"


def _with_bodies(catalogue: dict, folder: pathlib.Path) -> dict:
    """Replaces text, json, base64 or file of each answer by `body`, its bytes as a latin-1 text."""
    for answer in catalogue.get("answers", {}).values():
        if "file" in answer:
            body = (folder / answer.pop("file")).read_bytes()
        elif "json" in answer:
            body = json.dumps(answer.pop("json"), ensure_ascii=False).encode()
        elif "base64" in answer:
            body = base64.b64decode(answer.pop("base64"))
        else:
            body = answer.pop("text").encode()
        answer["body"] = body.decode("latin-1")
    return catalogue


def as_file(catalogue: dict) -> dict:
    """@return a catalogue of load() in the form of its file"""
    answers = {}
    for endpoint, answer in catalogue.get("answers", {}).items():
        body = answer["body"].encode("latin-1")
        try:
            told = {"text": body.decode()}
        except UnicodeDecodeError:
            told = {"base64": base64.b64encode(body).decode()}
        answers[endpoint] = {**{key: part for key, part in answer.items() if key != "body"}, **told}
    return {**catalogue, "answers": answers} if answers else catalogue


def text_in(title: str | dict, language: str) -> str:
    """@return a title in the language; else in the language without its region, in that of another region, in English, or
    in any language, the first that there is"""
    if isinstance(title, str):
        return title
    main = language.split("-")[0]
    regions = [code for code in title if code.split("-")[0] == main]
    for code in (language, main, *regions, "en"):
        if code in title:
            return title[code]
    return next(iter(title.values()))
