"""The reference host: a small code-repository indexer's storage, enough to run the wiki store on."""
