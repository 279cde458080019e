"""Python client for the request socket of usbd, the device-side USB link daemon."""

from .client import *  # noqa: F401,F403
from .client import __all__  # noqa: F401
