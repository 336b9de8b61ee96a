"""Places by what the functions that make them are called."""


def names_of(prefix, functions):
    """The functions whose names begin so, by the rest of the name, with blanks."""
    return {
        name.removeprefix(prefix).replace("_", " "): function
        for name, function in list(functions.items())
        if name.startswith(prefix)
    }
