"""Checks whether a host package and its database give the wiki store what it calls on.

``python -m tessaly_wiki_check HOST_MODULE:FACTORY`` prints what holds, what does not and what to
do about it; ``docs/host-contract.md`` states the contract. ``cli`` finds the host and prints,
``checks`` holds the list of checks, each a function over a ``Host``.
"""
