"""The seeded-fault measure: where it seeds faults, how it reads ctest, how it judges.

    python3 tests/tools/test_mutate.py
"""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import mutants  # noqa: E402
import mutate  # noqa: E402


def changes(text):
    """Every seeded variant of `text`, as (kind, replaced text, replacement)."""
    return [(s.kind, text[s.start:s.end], s.replacement) for s in mutants.find_sites("x.cpp", text)]


class WhereFaultsAreSeeded(unittest.TestCase):
    def test_comments_literals_and_directives_are_left_alone(self):
        text = ('#include <vector>\n'
                '#define LIMIT (a < 3)\n'
                '// if (a < b) return 1;\n'
                '/* x == 2 && y */\n'
                'const char* s = "a < b && 7";\n'
                'const char* r = R"x(if (a > 1) { f(); })x";\n'
                "char c = '<'; char d = '\\'';\n")
        self.assertEqual(changes(text), [])

    def test_templates_shifts_and_arrows_are_not_operators(self):
        text = ("std::vector<std::pair<int, int>> v;\n"
                "template <typename T>\nvoid g(T&& t);\n"
                "int z = p->q >> 1 << 2;\n")
        kinds = {kind for kind, _, _ in changes(text)}
        self.assertNotIn("relational", kinds)
        self.assertNotIn("logical", kinds)

    def test_each_kind_of_fault(self):
        text = ("int f(int a, int b) {\n"
                "    if (a <= b && b != 0) {\n"
                "        log(a,\n"
                "            b);\n"
                "        return true;\n"
                "    }\n"
                "    for (;;) {\n"
                "        break;\n"
                "    }\n"
                "    return -1;\n"
                "}\n")
        found = changes(text)
        self.assertIn(("relational", "<=", "<"), found)
        self.assertIn(("relational", "!=", "=="), found)
        self.assertIn(("logical", "&&", "||"), found)
        self.assertIn(("negation", "a <= b && b != 0", "!(a <= b && b != 0)"), found)
        self.assertIn(("call", "log(a,\n            b);", ";"), found)
        self.assertIn(("break", "break;", ";"), found)
        self.assertIn(("return", "true", "false"), found)
        self.assertIn(("return", "-1", "0"), found)
        self.assertIn(("constant", "0", "1"), found)
        self.assertIn(("constant", "0644", "0645"), changes("int mode = 0644;\n"))
        self.assertIn(("constant", "0x1C", "0x1d"), changes("int at = 0x1C;\n"))
        # A returned value is changed by the return rule only.
        self.assertNotIn(("constant", "1", "0"), found)

    def test_declarations_assignments_and_initialisers_are_not_removed_calls(self):
        text = ("void h() {\n"
                "    Foo bar(1);\n"
                "    x = compute(2);\n"
                "    if (int r = get(); r < 0) {\n"
                "    }\n"
                "}\n"
                "int Widget::size() const;\n")
        kinds = [(kind, old) for kind, old, _ in changes(text)]
        self.assertFalse([k for k in kinds if k[0] == "call"], kinds)
        self.assertFalse([k for k in kinds if k[0] == "negation"], kinds)

    def test_every_site_changes_the_text(self):
        source = ("int main(int argc, char** argv) {\n    if (argc > 1 || argv[0] == nullptr) {\n"
                  "        puts(argv[1]);\n    }\n    return 0;\n}\n")
        for site in mutants.find_sites("m.cpp", source):
            self.assertNotEqual(mutants.apply(source, site), source, site)


CTEST_OUTPUT = """Test project /tmp/ct/b
1/8 Test #2: Bad.Fail ...........................***Failed    0.00 sec
2/8 Test #4: Seg.Crash ..........................***Exception: SegFault  0.00 sec
3/8 Test #5: Abrt.Abort .........................Subprocess aborted***Exception:   0.00 sec
4/8 Test #6: Missing.NotRun .....................***Not Run   0.00 sec
5/8 Test #1: Good.Pass ..........................   Passed    0.00 sec
6/8 Test #7: Skip.Me ............................***Skipped   0.00 sec
7/8 Test #8: P/Param.Case/X  # GetParam() = 16-byte object <01-00> ...   Passed    0.00 sec
8/8 Test #3: Slow.Hang ..........................***Timeout   1.00 sec
"""


class HowOutcomesAreJudged(unittest.TestCase):
    def test_every_outcome_ctest_prints_is_read(self):
        self.assertEqual(mutate.parse_outcomes(CTEST_OUTPUT), {
            "#2 Bad.Fail": "Failed", "#4 Seg.Crash": "Exception: SegFault",
            "#5 Abrt.Abort": "Subprocess aborted***Exception:", "#6 Missing.NotRun": "Not Run",
            "#1 Good.Pass": "Passed", "#7 Skip.Me": "Skipped", "#8 P/Param.Case/X": "Passed",
            "#3 Slow.Hang": "Timeout"})

    def test_a_parameter_printed_differently_is_the_same_test(self):
        again = CTEST_OUTPUT.replace("<01-00>", "<7F-3A>")
        self.assertEqual(mutate.parse_outcomes(again), mutate.parse_outcomes(CTEST_OUTPUT))

    def test_only_tests_that_passed_unseeded_decide(self):
        outcomes = mutate.parse_outcomes(CTEST_OUTPUT)
        self.assertEqual(mutate.judge({"#1 Good.Pass"}, outcomes),
                         ("survived", []))
        self.assertEqual(mutate.judge({"#1 Good.Pass", "#2 Bad.Fail"}, outcomes),
                         ("caught", ["#2 Bad.Fail"]))
        self.assertEqual(mutate.judge({"#1 Good.Pass", "#6 Missing.NotRun", "#4 Seg.Crash"},
                                      outcomes),
                         ("caught", ["#4 Seg.Crash", "#6 Missing.NotRun"]))
        # A test missing from the run (ctest itself ended early) was not passed.
        self.assertEqual(mutate.judge({"#9 Gone.Test"}, outcomes), ("caught", ["#9 Gone.Test"]))

    def test_a_run_stopped_at_its_first_failure_counts_only_the_tests_it_ran(self):
        outcomes = mutate.parse_outcomes(CTEST_OUTPUT)
        baseline = {"#1 Good.Pass", "#2 Bad.Fail", "#9 Gone.Test"}
        self.assertEqual(mutate.judge(baseline, outcomes, stopped_at_failure=True),
                         ("caught", ["#2 Bad.Fail"]))
        self.assertEqual(mutate.judge({"#3 Slow.Hang", "#9 Gone.Test"}, outcomes, True),
                         ("hung", ["#3 Slow.Hang"]))
        # Nothing that ran failed, yet tests are missing: ctest ended early.
        self.assertEqual(mutate.judge({"#1 Good.Pass", "#9 Gone.Test"}, outcomes, True),
                         ("caught", ["#9 Gone.Test"]))
        self.assertEqual(mutate.judge({"#1 Good.Pass"}, outcomes, True), ("survived", []))

    def test_a_hang_ended_by_the_limit_is_caught_and_shown_as_such(self):
        outcomes = mutate.parse_outcomes(CTEST_OUTPUT)
        self.assertEqual(mutate.judge({"#3 Slow.Hang", "#1 Good.Pass"}, outcomes),
                         ("hung", ["#3 Slow.Hang"]))
        self.assertEqual(mutate.judge({"#3 Slow.Hang", "#2 Bad.Fail"}, outcomes),
                         ("caught", ["#2 Bad.Fail", "#3 Slow.Hang"]))

    def test_a_catch_stands_only_if_a_failed_test_fails_again(self):
        asked = []

        def rerun(outcomes):
            def run(numbers):
                asked.append(numbers)
                return outcomes
            return run

        broken = ["#2 Bad.Fail", "#12 Slow.Hang"]
        self.assertEqual(mutate.confirm("caught", broken, rerun({"#2 Bad.Fail": "Failed",
                                                                   "#12 Slow.Hang": "Passed"})),
                         ("caught", broken))
        self.assertEqual(asked, [[2, 12]])
        self.assertEqual(mutate.confirm("caught", broken, rerun({"#2 Bad.Fail": "Passed",
                                                                   "#12 Slow.Hang": "Passed"})),
                         ("flaky", broken))
        # A test the second run did not report has not passed it.
        self.assertEqual(mutate.confirm("caught", broken, rerun({"#2 Bad.Fail": "Passed"})),
                         ("caught", broken))
        asked.clear()
        for outcome in ("survived", "hung"):
            self.assertEqual(mutate.confirm(outcome, broken, rerun({})), (outcome, broken))
        self.assertEqual(asked, [])

    def test_a_stopped_run_whose_failure_does_not_come_again_is_run_whole(self):
        baseline = {"#1 Busy.Matrix", "#2 Round.Trip", "#3 Other.Pass"}
        # Stopped at #1, which then passes alone; #2 was never reached.
        stopped = {"#1 Busy.Matrix": "Failed"}
        whole = {"#1 Busy.Matrix": "Passed", "#2 Round.Trip": "Failed", "#3 Other.Pass": "Passed"}
        runs = []

        def rerun(numbers):
            runs.append(numbers)
            return {"#1 Busy.Matrix": "Passed", "#2 Round.Trip": "Failed"}

        self.assertEqual(mutate.assess(baseline, lambda: stopped, lambda: whole, rerun),
                         ("caught", ["#2 Round.Trip"]))
        self.assertEqual(runs, [[1], [2]])
        # Nothing fails in the whole run: the fault survived.
        self.assertEqual(mutate.assess(baseline, lambda: stopped,
                                       lambda: {n: "Passed" for n in baseline}, rerun),
                         ("survived", []))
        # A catch in the stopped run stands without the whole run.
        self.assertEqual(mutate.assess(baseline, lambda: {"#1 Busy.Matrix": "Failed"},
                                       lambda: self.fail("the whole suite ran"),
                                       lambda numbers: {"#1 Busy.Matrix": "Failed"}),
                         ("caught", ["#1 Busy.Matrix"]))


if __name__ == "__main__":
    unittest.main()
