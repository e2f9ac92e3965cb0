from ._errors import ConnectionLost, Error, PinError, ServerError, Timeout
