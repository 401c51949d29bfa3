"""Checks a host of the wiki store against what the store asks of it.

FACTORY returns a repository. It is called several times: without an argument, or, when it requires
one, with the path of a database file in a temporary folder. A database that is in use may be
checked: the rows of the checks stand in branches of their own and are deleted.
"""
