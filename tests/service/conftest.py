from fixtures import box, pytest_collection_modifyitems, pytest_configure, start  # noqa: F401
