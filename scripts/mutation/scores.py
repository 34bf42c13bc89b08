"""What the verdicts on changes come to, in words."""


def score(noticed, judged):
    return f"{noticed} of {judged} noticed ({100 * noticed / judged if judged else 0:.1f} per cent)"


def scores(own, with_program, surviving, program=""):
    """How many of those that were noticed or survived the component's own tests noticed, these and the program's where it is
    named, and how many survived."""
    judged = with_program + surviving
    also = f", {score(with_program, judged)} by these or those of {program}" if program else ""
    return f"{score(own, judged)}{' by the tests of the component' if program else ''}{also}, {surviving} survived"
