"""Tests of the shared daily cap: ``python -m unittest discover -s examples/shared_cap/tests -t .``"""

import logging

# What a test expects to be logged it looks for; the rest is not shown.
logging.getLogger("examples.shared_cap").addHandler(logging.NullHandler())
