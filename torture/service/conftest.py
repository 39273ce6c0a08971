import sys

sys.path.append("/co/tests/service")
from fixtures import box, pytest_collection_modifyitems, pytest_configure, start  # noqa: E402, F401
