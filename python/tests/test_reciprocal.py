"""Reciprocal pairs and the error model fitted to their discrepancies."""
import numpy as np
import pytest

from q5tools import reciprocal
from q5tools.survey import Survey

# a, b, m, n, R: the file's readings in order
READINGS = [
    (1, 2, 3, 4, 10.0),    # 0 normal of (1 2 3 4)
    (3, 4, 1, 2, 9.0),     # 1 its reciprocal: pair (0, 1)
    (1, 2, 3, 4, 10.5),    # 2 normal again: a repeat
    (2, 1, 5, 6, -5.0),    # 3 normal of (1 2 5 6), current pair written the other way round
    (6, 5, 1, 2, -4.8),    # 4 reciprocal, both pairs reversed: R(2 1 5 6) = -4.8
    (9, 10, 7, 8, 2.0),    # 5 the reciprocal direction first
    (3, 4, 2, 1, -9.2),    # 6 reciprocal of (1 2 3 4) again: a repeat
    (7, 8, 10, 9, -2.2),   # 7 pairs with 5: R(9 10 7 8) = 2.2
    (1, 3, 2, 4, 1.0),     # 8 alone
]


def survey(rows):
    a, b, m, n, r = (np.array(v) for v in zip(*rows))
    ids = np.arange(1, 11)
    return Survey("s.dat", ids, ids * 1.0, 0 * ids, a, b, m, n, r.astype(float))


def test_pairs_in_file_order_with_signs_and_repeats():
    p = reciprocal.pair_readings(survey(READINGS))
    assert list(p.first) == [0, 3, 5] and list(p.second) == [1, 4, 7]
    assert np.allclose(p.mean, [9.5, -4.9, 2.1]) and np.allclose(p.discrepancy, [1.0, -0.2, -0.2])
    assert list(p.repeats) == [2, 6]
    empty = reciprocal.pair_readings(survey(READINGS[:1]))
    assert len(empty) == 0 and len(empty.repeats) == 0


@pytest.mark.parametrize("limit, keep", [(0.2, [1, 1, 1]), (0.1, [0, 1, 1]), (0.05, [0, 1, 0])])
def test_limit_leaves_out_pairs_that_disagree(limit, keep):
    p = reciprocal.pair_readings(survey(READINGS))  # relative 1/9.5, 0.2/4.9, 0.2/2.1
    assert list(reciprocal.apply_limit(p.mean, p.discrepancy, limit)) == [bool(k) for k in keep]
    zero = reciprocal.Pairing(*(np.array(v) for v in ([0, 2], [1, 3], [0.0, 0.0], [0.0, 0.1], [])))
    assert list(reciprocal.apply_limit(zero.mean, zero.discrepancy, limit)) == [True, False]


def synthetic(a, b, seed, count=400, outliers=5):
    """Pairs of independent readings of std a + b|R| over 3 decades of |R|,
    a few of them far off."""
    rng = np.random.default_rng(seed)
    r = 10 ** rng.uniform(np.log10(0.002), np.log10(2), count)
    e = a + b * r
    r1, r2 = r + rng.normal(0, e), r + rng.normal(0, e)
    d = r1 - r2
    d[rng.choice(count, outliers, replace=False)] += 30 * e.max() * rng.choice([-1, 1], outliers)
    return np.abs(r1 + r2) / 2, d


@pytest.mark.parametrize("a, b", [(0.002, 0.03), (0.0, 0.05), (0.004, 0.0)])
def test_error_model_recovers_a_known_noise(a, b):
    # one set of 400 pairs gives a and b to about 11 % (1 sigma) through the
    # bins' robust spreads, so ten seeds judge the bias and each one its scatter
    fits = [reciprocal.fit_error_model(*synthetic(a, b, seed)) for seed in range(10)]
    assert all(f.pairs == 400 and len(f.bins_r) == 20 and f.a >= 0 and f.b >= 0 for f in fits)
    assert "400 reciprocal pairs" in fits[0].method
    r = np.geomspace(0.005, 1.0, 5)
    for f in fits:
        assert np.allclose(f.a + f.b * r, a + b * r, rtol=0.35)
    mean_a, mean_b = np.mean([f.a for f in fits]), np.mean([f.b for f in fits])
    if a and b:
        assert mean_a == pytest.approx(a, rel=0.1) and mean_b == pytest.approx(b, rel=0.1)
    # a term that is truly 0 can only come out >= 0: on average a little above
    assert np.allclose(mean_a + mean_b * r, a + b * r, rtol=0.1 if a and b else 0.15)


def test_error_model_needs_ten_pairs_and_some_spread():
    r, d = synthetic(0.002, 0.03, 0, count=10, outliers=0)
    assert reciprocal.fit_error_model(r[:9], d[:9]) is None
    model = reciprocal.fit_error_model(r, d)
    assert model.pairs == 10 and len(model.bins_e) == 2
    assert reciprocal.fit_error_model(r, 0 * d) is None
    assert len(reciprocal.fit_error_model(*synthetic(0.002, 0.03, 0, count=30)).bins_r) == 3


@pytest.mark.parametrize("a, b, r, factor", [
    (0.01, 0.0, [1.0, 5.0], 1.0),
    (0.0, 0.03, [1.0, 5.0], 1.0),
    (1.0, 1.0, [1.0, 1.0, 1.0], np.sqrt(2)),
    (0.002, 0.03, np.geomspace(0.001, 10, 41), None),
])
def test_quadrature_weights_keep_the_typical_error(a, b, r, factor):
    model = reciprocal.ErrorModel(a, b, np.array([]), np.array([]), 0, "")
    a_wgt, b_wgt, c = reciprocal.quadrature_weights(model, r)
    ratios = sorted((a + b * x) / np.hypot(a, b * x) for x in r)
    assert c == pytest.approx(factor if factor else ratios[len(ratios) // 2])
    assert 1 <= c <= np.sqrt(2) + 1e-12 and (a_wgt, b_wgt) == pytest.approx((c * a, c * b))
    linear, q5 = a + b * np.asarray(r), np.hypot(a_wgt, b_wgt * np.asarray(r))
    assert np.all((q5 <= np.sqrt(2) * linear + 1e-12) & (linear <= np.sqrt(2) * q5 + 1e-12))
