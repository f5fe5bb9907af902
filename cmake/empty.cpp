// Anchor source for the shared library; its code comes from the subsystem archives.
