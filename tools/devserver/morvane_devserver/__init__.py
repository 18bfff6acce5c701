"""The development device server; the entry point is the devserver script beside it."""
