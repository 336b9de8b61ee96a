from quorvane.hints import did_you_mean


def test_the_nearest_name_is_a_question():
    assert did_you_mean("rnak", ["rank", "ewma"]) == "did you mean 'rank'?"
    assert did_you_mean("x", ["rank", "ewma"]) == ""
    assert did_you_mean("x", []) == ""


def test_a_lower_cutoff_finds_what_is_less_near():
    assert did_you_mean("polcy", ["policy"]) == did_you_mean("polcy", ["policy"], cutoff=0.1)
    assert did_you_mean("pol", ["policies_of_all"]) == ""
    assert did_you_mean("pol", ["policies_of_all"], cutoff=0.3) == "did you mean 'policies_of_all'?"
