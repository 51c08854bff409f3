"""Bodies with places that are filled in: the real store's form around the lab's state. The language is Jinja's."""
import functools
import json

import jinja2
import jinja2.sandbox

# A template of a team's own may loop; what it makes must fit an answer.
LARGEST_BODY = 64 << 20


class TemplateError(ValueError):
    """What is wrong with a template, in one line."""


def _environment() -> jinja2.Environment:
    made = jinja2.sandbox.ImmutableSandboxedEnvironment(
        undefined=jinja2.StrictUndefined, autoescape=False, keep_trailing_newline=True
    )
    made.filters["tojson"] = lambda value: json.dumps(value, ensure_ascii=False)
    return made


_ENVIRONMENT = _environment()


@functools.lru_cache(maxsize=64)
def read(text: str) -> jinja2.Template:
    """@throw TemplateError with the line of what cannot be read"""
    try:
        return _ENVIRONMENT.from_string(text)
    except jinja2.TemplateSyntaxError as error:
        raise TemplateError(f"the template, line {error.lineno}: {error.message}") from None


def filled(text: str, values: dict) -> bytes:
    """@throw TemplateError for a name that is not there, or what Python cannot do"""
    try:
        body = read(text).render(values).encode()
    except TemplateError:
        raise
    except Exception as error:
        raise TemplateError(f"the template: {type(error).__name__}: {error}") from None
    if len(body) > LARGEST_BODY:
        raise TemplateError(f"the template made {len(body)} bytes; {LARGEST_BODY} are the most")
    return body
