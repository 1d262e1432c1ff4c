"""Pictures of figures, for watchers that ask for one.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback. Unlike the rest of looking this runs the drawing library's code, and through it maybe a script's: what
it asks of a class is therefore what that library would ask.
"""

import io

_MOST_PIXELS = 16_000_000
_MOST_REASON_BYTES = 500


class _Picture(io.BytesIO):
    """A file that does not grow beyond what may be sent."""

    def __init__(self, limit):
        super().__init__()
        self.limit = limit

    def write(self, data):
        if self.tell() + len(data) > self.limit:
            raise _NoForm(f"the picture takes more than {self.limit} bytes")
        return super().write(data)


def _is_a(value, module, name):
    kind = _own_type(module, name)
    return kind is not None and issubclass(type(value), kind)


def _figure_of(value):
    """The figure that a value is or belongs to. Nothing is imported to find out."""
    figure = value
    if _is_a(value, "matplotlib.axes", "Axes"):
        figure = value.figure
        if _is_a(figure, "matplotlib.figure", "SubFigure"):
            figure = figure.figure
        if figure is None:
            raise _NoForm("the axes belong to no figure")
    if not _is_a(figure, "matplotlib.figure", "Figure"):
        raise _NoForm(f"a value of type {_type_name(type(value))!r} has no picture")
    return figure


def _paint(figure, form, dots, limit):
    warnings = library("warnings")
    dots = float(figure.get_dpi()) if dots is None else dots
    width, height = (round(float(inches) * dots) for inches in figure.get_size_inches())
    if form == "png" and width * height > _MOST_PIXELS:
        raise _NoForm(f"{width} by {height} pixels are more than {_MOST_PIXELS}")
    file = _Picture(limit)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        figure.savefig(file, format=form, dpi=dots)
    return file.getvalue()


@_answered
def draw(name, path, form, dots, limit):
    """(bytes of a file, None), or (None, why there is none), of a picture of a value."""
    try:
        return _paint(_figure_of(_walk(name, path)), form, dots, limit), None
    except _NoForm as reason:
        return None, str(reason)
    except Exception as error:
        try:
            text = str(error)
        except Exception:
            text = "no text"
        return None, _cut(f"drawing failed with {_type_name(type(error))}: {text}", _MOST_REASON_BYTES)
