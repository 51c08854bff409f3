"""Renders own answers that are Jinja templates: the real store's JSON with values of the lab's state."""
import functools
import json

import jinja2
import jinja2.sandbox

# Bytes. A template may have loops; its result is limited as a request is.
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
    """Parses a template. @throw TemplateError with the line of a syntax error"""
    try:
        return _ENVIRONMENT.from_string(text)
    except jinja2.TemplateSyntaxError as error:
        raise TemplateError(f"the template, line {error.lineno}: {error.message}") from None


def filled(text: str, values: dict) -> bytes:
    """Renders a template. @throw TemplateError for an unknown name, or for any error while it runs"""
    try:
        body = read(text).render(values).encode()
    except TemplateError:
        raise
    except Exception as error:
        raise TemplateError(f"the template: {type(error).__name__}: {error}") from None
    if len(body) > LARGEST_BODY:
        raise TemplateError(f"the template made {len(body)} bytes; {LARGEST_BODY} are the most")
    return body
