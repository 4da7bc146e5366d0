"""The files with the real libraries, against the endpoint of the examples."""

import os

# Otherwise a library fetches a price list from the network when it is imported.
os.environ["LITELLM_LOCAL_MODEL_COST_MAP"] = "True"
