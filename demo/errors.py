"""The one exception for what a user can mend."""


class UserError(Exception):
    """Bad input or a state the user can change; shown as one line, exit status 2."""
