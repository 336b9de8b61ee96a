"""What the body of a method that subclasses must define does."""

from typing import NoReturn


def abstract_method_required(name: str) -> NoReturn:
    """Raise for a method that a subclass should have defined.

    Parameters
    ----------
    name : str
        The method's qualified name, such as ``"RotationBase.compute"``.

    Raises
    ------
    NotImplementedError
        Always; the text names the method.
    """
    raise NotImplementedError(f"{name} is abstract: a subclass must define it")
