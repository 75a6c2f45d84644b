"""Elements of HTML and SVG. Whatever is not markup already is escaped, so nothing is forgotten."""
import html


class Markup(str):
    """Text that is not escaped again."""


def element(name, /, *children, **attributes):
    """A trailing _ keeps an attribute apart from a word of Python; other _ stand for -."""
    written = "".join(f' {key.rstrip("_").replace("_", "-")}="{html.escape(str(value))}"'
                      for key, value in attributes.items() if value is not None)
    if name == "meta":
        return Markup(f"<{name}{written}/>")
    return Markup(f"<{name}{written}>{join(children)}</{name}>")


def join(children):
    return Markup("".join(child if isinstance(child, Markup) else html.escape(str(child))
                          for child in children))
