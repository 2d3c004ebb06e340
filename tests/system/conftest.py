import os
import pathlib

import pytest

import tvxns


@pytest.fixture
def ns():
    if not tvxns.available():
        pytest.skip("system tests need root and unshare")
    with tvxns.Namespace() as n:
        yield n


@pytest.fixture(scope="session")
def build_dir():
    d = os.environ.get("TVX_BUILD_DIR")
    if not d:
        pytest.skip("TVX_BUILD_DIR is not set: run through ctest")
    return pathlib.Path(d)
