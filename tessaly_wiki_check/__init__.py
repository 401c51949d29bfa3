"""Checks whether a host package and its database give the wiki store what it calls on.

``python -m tessaly_wiki_check HOST_MODULE:FACTORY`` prints what holds, what does not and what to
do about it; see ``docs/host-contract.md``.
"""
