"""A batch pass on an event loop: coroutines that await their shares of the bounds."""
