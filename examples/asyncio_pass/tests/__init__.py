"""Tests of the pass on an event loop."""
