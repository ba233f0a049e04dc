"""The border of the arrays: types, strides, shapes, and what is no number."""

import warnings

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

import vrkcore

TYPES = "? i1 u1 <i2 >i2 <u2 >u2 i4 >i4 u4 i8 u8 f2 f4 >f4 f8 >f8 g".split()


def make(frames, tilts=None, pixel_size=1e8, **more):
    if tilts is None:
        tilts = np.arange(len(frames), dtype=float)
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        series = vrkcore.Series.from_array(frames, tilts, pixel_size, **more)
    return series, [str(warning.message) for warning in caught]


@given(
    st.sampled_from(TYPES),
    hnp.array_shapes(min_dims=3, max_dims=3, min_side=1, max_side=6),
    st.permutations([0, 1, 2]),
    st.tuples(*[st.sampled_from([1, 2, -1, -2])] * 3),
    st.randoms(use_true_random=False),
)
def test_whole_numbers_of_any_type_and_strides_come_back(dtype, shape, order, steps, random):
    values = np.array([random.randint(0, 1 if dtype == "?" else 120) for _ in range(int(np.prod(shape)))])
    whole = values.reshape(shape).astype(dtype).transpose(order)
    # Every other element, from the end, of an array of another order: the same numbers in strange places.
    spread = np.zeros([size * abs(step) for size, step in zip(whole.shape, steps)], dtype)
    view = spread[tuple(slice(None, None, step) for step in steps)]
    view[...] = whole
    series, told = make(view)
    assert not told
    np.testing.assert_array_equal(series.frames, whole.astype(int))
    assert series.frames.dtype == np.int16


@given(hnp.arrays(np.float32, (2, 3, 4), elements=st.floats(width=32, allow_nan=True, allow_infinity=True)))
def test_any_float_becomes_a_count(frames):
    series, told = make(frames)
    invalid = ~(abs(frames) <= 1e30)  # masks are filled with values like the largest float
    assert (series.frames[invalid] == 0).all()
    assert invalid.any() == any("no numbers" in text for text in told)
    scaled = [text for text in told if "multiplied" in text]
    kept = np.where(invalid, 0, frames).astype(float)
    if not scaled:
        np.testing.assert_array_equal(series.frames, np.clip(kept, -32768, 32767))
        assert any("clipped" in text for text in told) == (abs(kept + 0.5) > 32767.5).any()
    else:
        factor = float(scaled[0].split("multiplied by ")[1].split()[0])
        expected = np.clip(np.floor(kept * factor + 0.5), -32768, 32767)
        np.testing.assert_allclose(series.frames, expected, atol=1 + 1e-4 * np.abs(expected).max())


@given(hnp.array_shapes(min_dims=1, max_dims=4, min_side=0, max_side=3), st.integers(0, 4))
def test_wrong_shapes_are_refused(shape, tilts):
    frames = np.ones(shape, np.int16)
    right = len(shape) == 3 and shape[0] == tilts and min(shape) > 0
    if right:
        assert make(frames, np.arange(tilts))[0].shape == shape
    else:
        with pytest.raises(ValueError):
            make(frames, np.arange(tilts))


FRAMES = np.ones((3, 2, 2), np.int16)


@pytest.mark.parametrize(
    "arguments, error",
    [
        ((FRAMES, [0, 1, np.nan], 1e8), ValueError),
        ((FRAMES, [[0, 1, 2]], 1e8), ValueError),
        ((FRAMES, 1.0, 1e8), ValueError),
        ((FRAMES, [0, 1, 2], np.inf), ValueError),
        ((FRAMES, [0, 1, 2], "wide"), TypeError),
        ((FRAMES, ["a", "b", "c"], 1e8), (TypeError, ValueError)),
        ((FRAMES, [0, 1, 2], 1e8, 2e5), ValueError),
        ((FRAMES.astype(complex), [0, 1, 2], 1e8), TypeError),
        ((FRAMES.astype(object), [0, 1, 2], 1e8), TypeError),
        ((FRAMES.astype("U3"), [0, 1, 2], 1e8), TypeError),
    ],
)
def test_what_is_no_series_is_refused(arguments, error):
    with pytest.raises(error):
        vrkcore.Series.from_array(*arguments)


def test_one_array_is_not_tied_to_the_other():
    frames = np.arange(12, dtype=np.int16).reshape(3, 2, 2)
    series, _ = make(frames)
    view = series.frames
    frames[...] = -1
    assert view[2, 1, 1] == 11
    with pytest.raises(ValueError):
        view[0, 0, 0] = 1
    del series
    assert view[2, 1, 1] == 11


POINTS = hnp.arrays(np.float64, st.tuples(st.integers(0, 40), st.sampled_from([2, 3])),
                    elements=st.integers(-12, 12).map(lambda n: n / 2))


@given(POINTS, st.sampled_from([0.4, 0.75, 1.6, 5.0]), st.integers(1, 5))
def test_clusters_are_those_of_the_definition(points, eps, min_points):
    labels = vrkcore.dbscan(points, eps, min_points)
    assert labels.shape == (len(points),)
    near = np.linalg.norm(points[:, None] - points[None], axis=2) < eps
    core = near.sum(1) >= min_points
    reached = (near & core[None]).any(1)
    assert ((labels >= 0) == reached).all()
    # Cores that are neighbours are together, and clusters are no larger than what cores connect.
    together = near & core[:, None] & core[None]
    for _ in range(6):
        together = together @ together
    same = labels[:, None] == labels[None]
    both = core[:, None] & core[None]
    assert (same[both] == together[both]).all()
    if len(points):
        assert set(labels[labels >= 0]) == set(range(labels.max() + 1))


@pytest.mark.parametrize("points, eps, least", [
    (np.ones((4, 4)), 1, 1), (np.ones(3), 1, 1), ([[0, 0, np.nan]], 1, 1), ([[0, 0, np.inf]], 1, 1),
    (np.ones((4, 3)), 0, 1), (np.ones((4, 3)), np.nan, 1), (np.ones((4, 3)), 1, 0),
])
def test_what_cannot_be_clustered_is_refused(points, eps, least):
    with pytest.raises(ValueError):
        vrkcore.dbscan(points, eps, least)


def test_the_order_of_axes_is_xyz_in_lists_of_points():
    h, k, l = (axis.ravel() for axis in np.mgrid[-4:5, -4:5, -4:5])
    points = np.stack([8 * h, 11 * k + 2 * h, 15 * l], axis=1).astype(float)
    found = vrkcore.find_cell(np.asfortranarray(points[::-1]), pixel_size=1e8)
    assert found.cell.bravais == "mP"
    vectors = np.abs(np.round(found.reciprocal_vectors, 1))
    assert sorted(vectors[:, 2]) == [0, 0, 15], "the third coordinate is z"
    for wrong in (points[:, :2], points[0], points.T):
        with pytest.raises(ValueError):
            vrkcore.find_cell(wrong)
    with pytest.raises(ValueError):
        vrkcore.find_cell(points, np.ones(3))
    points[5, 1] = np.nan
    with pytest.raises(vrkcore.UsageError, match="reflection 5"):
        vrkcore.find_cell(points)
