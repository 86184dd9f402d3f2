#!/usr/bin/env python3
"""The unit tests' path to the fast-path segment writer, tools/cpa_rp/segment.py."""
import os
import runpy

runpy.run_path(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "cpa_rp", "segment.py"),
               run_name="__main__")
