"""Runs the ```python blocks of docs/PANDAS.md, in order, in one namespace:
the page's examples and the asserts that show velseq and pandas agree.

Run: PYTHONPATH=build/debug/python python3 python/examples/check_pandas_doc.py docs/PANDAS.md
"""
import re
import sys

page = open(sys.argv[1], encoding="utf-8").read()
blocks = re.findall(r"^```python\n(.*?)^```$", page, re.S | re.M)
assert blocks, f"{sys.argv[1]} has no python blocks"
scope = {}
for i, code in enumerate(blocks, 1):
    exec(compile(code, f"{sys.argv[1]} block {i}", "exec"), scope)
print(f"{len(blocks)} blocks of {sys.argv[1]} ran")
