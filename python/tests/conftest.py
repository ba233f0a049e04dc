"""What the tests share: a small crystal and what is found of it."""

import os
import warnings

import hypothesis
import numpy as np
import pytest

import vrkcore

# The same inputs in every run; HYPOTHESIS_PROFILE=search draws new ones. What was found is not kept beside the sources.
hypothesis.settings.register_profile("vrkcore", database=None, deadline=None, derandomize=True, max_examples=25)
hypothesis.settings.register_profile("search", database=None, deadline=None, max_examples=2000)
hypothesis.settings.load_profile(os.environ.get("HYPOTHESIS_PROFILE", "vrkcore"))


@pytest.fixture(scope="session")
def series():
    return vrkcore.simulate([4, 5, 6, 90, 90, 90], dmin=1, size=128, tilts=np.arange(-40, 41, 4), axis=20,
                            write_axis=True)


@pytest.fixture(scope="session")
def result(series):
    return vrkcore.run(series)


@pytest.fixture(scope="session")
def program():
    """The program vrk of the same build."""
    path = os.environ.get("VRK")
    if not path:
        pytest.skip("VRK does not name the program")
    return path


@pytest.fixture(autouse=True)
def strict():
    """Warnings are part of what is tested."""
    with warnings.catch_warnings():
        warnings.simplefilter("error", vrkcore.VRKWarning)
        yield
