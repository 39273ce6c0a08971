import sys

sys.path.append("/co/tests/service")
