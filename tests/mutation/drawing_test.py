"""Which mutants scripts/mutate draws: of each rule exactly the expected ones, and nothing out of bounds."""

import os
import sys
import tempfile
import textwrap
import unittest

SOURCE_DIR = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "mutation"))
import drawing  # noqa: E402
import ledger  # noqa: E402
import mutations  # noqa: E402
from cpp_source import Source  # noqa: E402


def source_of(text):
    return Source("sample.cpp", textwrap.dedent(text))


def function(body):
    """A sample of statements: rules look into functions alone."""
    return source_of(f"void f() {{\n{textwrap.dedent(body)}\n}}\n")


def edits(source, *kinds):
    """What each mutation of these kinds takes away and puts there, in the order of the text."""
    return [(source.text[m.start:m.end], m.new) for m in mutations.all_of(source) if not kinds or m.kind in kinds]


class ConditionTest(unittest.TestCase):
    def expect(self, body, *expected):
        self.assertEqual(list(expected), edits(function(body), "condition"))

    def test_a_comparison_is_turned(self):
        self.expect("a = b == c;", ("==", "!="))
        self.expect("a = b != c;", ("!=", "=="))
        self.expect("a = b < c;", ("<", ">="))
        self.expect("a = b >= c;", (">=", "<"))
        self.expect("a = b > c;", (">", "<="))
        self.expect("a = b <= c;", ("<=", ">"))

    def test_and_is_or_and_or_is_and(self):
        self.expect("a = b && c || d;", ("&&", "||"), ("||", "&&"))

    def test_a_negation_goes(self):
        self.expect("return !b;", ("!", ""))

    def test_an_if_is_negated(self):
        self.expect("if (b(c)) d();", ("b(c)", "!(b(c))"))
        self.expect("if constexpr (b) d();", ("b", "!(b)"))

    def test_of_an_if_that_declares_only_the_condition_is_negated(self):
        self.expect("if (int b = c(); d(b)) e();", ("d(b)", "!(d(b))"))
        self.expect("if (const auto b = c()) e();")

    def test_brackets_of_templates_and_references_are_none(self):
        self.expect("std::map<int, std::vector<int>> a; auto&& b = c; d<e>(f); std::vector<g*> h{};")

    def test_an_operator_that_is_declared_stays(self):
        self.assertEqual([], edits(source_of("bool operator==(A a, A b); bool operator!=(A a, A b); bool operator!(A a);"),
                                   "condition"))


class BoundTest(unittest.TestCase):
    def expect(self, body, *expected):
        self.assertEqual(list(expected), edits(function(body), "bound"))

    def test_an_end_is_let_in_or_kept_out(self):
        self.expect("a = b < c;", ("<", "<="))
        self.expect("a = b <= c;", ("<=", "<"))
        self.expect("a = b > c;", (">", ">="))
        self.expect("a = b >= c;", (">=", ">"))

    def test_one_more_is_one_less(self):
        self.expect("a = b + 1;", ("+", "-"), ("1", "0"), ("1", "2"))
        self.expect("a = b - 1;", ("-", "+"), ("1", "0"), ("1", "2"))

    def test_an_integer_moves_by_one(self):
        self.expect("a = 16;", ("16", "(16 + 1)"), ("16", "(16 - 1)"))
        self.expect("a = 0x1'0uL;", ("0x1'0uL", "(0x1'0uL + 1)"), ("0x1'0uL", "(0x1'0uL - 1)"))
        self.expect("a = 1U;", ("1U", "0U"), ("1U", "2U"))

    def test_nothing_lies_below_nought(self):
        self.expect("a = 0;", ("0", "1"))

    def test_other_numbers_stay(self):
        self.expect("a = 1.5; b = 1e3; c = '1'; d = \"1\";")

    def test_constants_and_defaults_outside_functions_move_too(self):
        sample = source_of("constexpr int kA = 7;\nstruct B {\n  int c = 2;\n  virtual void d() const = 0;\n};\n")
        self.assertEqual([("7", "(7 + 1)"), ("7", "(7 - 1)"), ("2", "(2 + 1)"), ("2", "(2 - 1)")],
                         edits(sample, "bound"))


class CallTest(unittest.TestCase):
    def expect(self, body, *expected):
        self.assertEqual([(call, "{}") for call in expected], edits(function(body), "call"))

    def test_a_call_is_left_out(self):
        self.expect("a();", "a();")
        self.expect("a.b->c(d, e);", "a.b->c(d, e);")
        self.expect("::close(fd);", "::close(fd);")
        self.expect("A::b<C>(d).e();", "A::b<C>(d).e();")
        self.expect("(*a)(b);", "(*a)(b);")

    def test_so_is_one_without_braces_around(self):
        self.expect("if (a) b(); else c();", "b();", "c();")
        self.expect("for (int a : b) c(a);", "c(a);")

    def test_so_is_one_in_a_lambda(self):
        self.expect("auto a = [&] { b(); };", "b();")
        self.expect("auto a = [&](int c) -> int { b(); return c; };", "b();")

    def test_what_is_used_or_declared_is_no_call(self):
        self.expect("a = b(); int c(d); Guard guard(mutex); return e(); ++f; delete g(); auto h = i();")
        self.expect("static_cast<void>(a); using B = C;")


class ArgumentsTest(unittest.TestCase):
    def expect(self, body, *expected):
        self.assertEqual(list(expected), edits(function(body), "arguments"))

    def test_neighbours_are_swapped(self):
        self.expect("a(b, c + 1, d);", ("b, c + 1", "c + 1, b"), ("c + 1, d", "d, c + 1"))

    def test_commas_further_in_do_not_part(self):
        self.expect("a(b<c, d>(), {e, f});", ("b<c, d>(), {e, f}", "{e, f}, b<c, d>()"))

    def test_the_same_twice_is_nothing_to_swap(self):
        self.expect("a(b, b); c(d); e();")

    def test_parameters_are_no_arguments(self):
        self.assertEqual([], edits(source_of("void a(int b, int c);\nvoid d(int e, int f) {}\n"), "arguments"))
        self.expect("auto a = [](int b, int c) {}; for (a = 0, b = 1;;) {}")


class OrderTest(unittest.TestCase):
    def expect(self, body, *expected):
        self.assertEqual(list(expected), edits(function(body), "order"))

    def test_two_that_do_something_are_swapped(self):
        self.expect("a();\nb();", ("a();\nb();", "b();\na();"))
        self.expect("const int a = b();\nc.d = e;", ("const int a = b();\nc.d = e;", "c.d = e;\nconst int a = b();"))

    def test_two_declarations_are_not(self):
        self.expect("const int a = b();\nconst int c = d();")

    def test_two_assignments_that_know_nothing_of_each_other_are_not(self):
        self.expect("a.b = c;\na.d = e;")
        self.expect("a.b = c;\na.d = a.b;", ("a.b = c;\na.d = a.b;", "a.d = a.b;\na.b = c;"))

    def test_what_jumps_or_branches_keeps_its_place(self):
        self.expect("a();\nreturn;")
        self.expect("if (a) b();\nc();")

    def test_statements_of_two_blocks_are_no_neighbours(self):
        self.expect("{ a(); }\nb();")


class ValueTest(unittest.TestCase):
    def expect(self, body, *expected):
        self.assertEqual(list(expected), edits(function(body), "value"))

    def test_true_is_false_and_false_is_true(self):
        self.expect("return true;", ("true", "false"))
        self.expect("return false;", ("false", "true"))

    def test_anything_else_is_empty(self):
        self.expect("return a + b(c);", ("a + b(c)", "{}"))

    def test_what_is_empty_already_stays(self):
        self.expect("return; return {}; return 0; return nullptr; return std::nullopt;")


class OutOfBoundsTest(unittest.TestCase):
    def test_nothing_is_drawn_where_no_code_runs(self):
        self.assertEqual([], edits(source_of("""\
            // if (a == 1) b();
            /* c(1, 2); */
            #include <d> // 3
            #define E(f) \\
              if (f == 4) g(5, 6)
            #if H > 7
            #endif
            static_assert(sizeof(int) == 4 && 8 < 9, "i == 10");
            template <int J = 11, bool K = (12 > 13)>
            class L;
            const char* const m = "n == 14 && !o";
            const char* const p = R"(q(15, 16);)";
            """)))

    def test_nothing_is_drawn_of_a_statement_that_only_logs(self):
        self.assertEqual([], edits(function("""\
            log_.debug("a" + std::to_string(1), b == c);
            log(LogLevel::Error, "d", !e);
            std::fprintf(stderr, "%d", 2);
            """)))

    def test_nor_does_it_change_places(self):
        self.assertEqual([], edits(function("log_.debug(a);\nb();"), "order"))


class StructureTest(unittest.TestCase):
    SAMPLE = """\
        namespace A {
        class B final : public C {
         public:
          explicit B(int a) : a_(a), b_{a} { start(); }
          int size() const noexcept { return a_; }

         private:
          struct D { int e = f(); };
          int a_;
        };
        auto B::g() -> std::vector<int> { return h(); }
        const std::vector<int> kI{j()};
        }  // namespace A
        """

    def test_bodies_are_told_from_classes_and_values(self):
        source = source_of(self.SAMPLE)
        inside = [source.span(s.first, s.last) for s in source.statements()]
        self.assertCountEqual(["start();", "return a_;", "return h();"], inside)

    def test_a_mutant_is_named_by_its_function_and_its_lines(self):
        source = source_of("void A::b(int c) {\n  if (c   == 1) {  // why\n    d();\n  }\n}\n")
        mutation = next(m for m in mutations.all_of(source) if m.new == "!=")
        self.assertEqual(("A::b", "if (c == 1) {", "if (c != 1) {"), mutations.describe(source, mutation))

    def test_what_is_said_of_a_functions_locks_hides_neither_body_nor_name(self):
        for said in ("APPCONFIG_NO_THREAD_CHECK", "APPCONFIG_REQUIRES(mutex_)"):
            source = source_of(f"void A::b() {said} {{\n  for (;;) c();\n  d(1, 2);\n}}\n")
            mutation = next(m for m in mutations.all_of(source) if m.kind == "arguments")
            self.assertEqual("A::b", mutations.describe(source, mutation)[0], said)

    def test_the_name_does_not_change_when_the_lines_move(self):
        text = "void a() {\n  b(c, d);\n}\n"
        names = []
        for sample in (text, "// A comment.\n\nint e = 0;\n" + text):
            source = source_of(sample)
            mutation = next(m for m in mutations.all_of(source) if m.kind == "arguments")
            names.append(mutations.describe(source, mutation))
        self.assertEqual(names[0], names[1])


class DrawTest(unittest.TestCase):
    def setUp(self):
        body = "".join(f"  if (a{i} < {i}) b{i}(c, d);\n  return e{i};\n" for i in range(2, 40))
        self.large = [Source("large.cpp", f"int f() {{\n{body}}}\n")]
        self.small = [Source("small.cpp", "bool g() {\n  h(i, j);\n  return k == 5;\n}\n")]
        self.sources = {"large": self.large, "small": self.small}

    def test_the_same_seed_draws_the_same_and_another_one_others(self):
        def drawn(seed):
            return [place.candidates[0] for place in drawing.draw(self.sources, 20, seed)]
        self.assertEqual(drawn(3), drawn(3))
        self.assertNotEqual(drawn(3), drawn(4))

    def test_folders_have_parts_by_their_size_and_one_at_least(self):
        self.assertEqual({"a": 8, "b": 2}, drawing.shares(10, {"a": 400, "b": 100}))
        self.assertEqual({"a": 9, "b": 1}, drawing.shares(10, {"a": 9999, "b": 1}))

    def test_each_kind_has_an_equal_part(self):
        kinds = [p.candidates[0].kind for p in drawing.draw({"large": self.large}, 20, 1)]
        counts = {kind: kinds.count(kind) for kind in kinds}
        self.assertEqual(5, len(counts))  # nothing stands in an order there
        self.assertEqual({4}, set(counts.values()))

    def test_no_mutant_is_drawn_twice(self):
        candidates = [m for p in drawing.draw(self.sources, 20, 1) for m in p.candidates]
        self.assertEqual(len(candidates), len(set(candidates)))

    def test_a_changed_file_leaves_what_is_drawn_from_the_others(self):
        body = "".join(f"  if (k{i} < {i}) l{i}(m, n);\n" for i in range(2, 10))
        def drawn_from_large(text):
            places = drawing.draw({"both": self.large + [Source("other.cpp", text)]}, 40, 1)
            return {p.candidates[0] for p in places if p.candidates[0].path == "large.cpp"}
        before, after = (drawn_from_large(f"int f() {{\n{b}}}\n") for b in (body, "  o(p, q);\n" + body))
        self.assertGreater(len(before & after), len(before) * 3 // 4)

    def test_places_are_numbered_from_one(self):
        self.assertEqual(list(range(1, 21)), [p.number for p in drawing.draw(self.sources, 20, 1)])

    def test_the_five_folders_have_enough_for_a_whole_run(self):
        if not os.path.exists(os.path.join(SOURCE_DIR, ".git")):
            self.skipTest("git tells which files are the project's")
        listed = {folder: drawing.sources_of(SOURCE_DIR, folder) for folder in drawing.FOLDERS}
        places = drawing.draw(listed, 200, 1)
        self.assertEqual(200, len(places))
        self.assertEqual(set(drawing.FOLDERS), {p.folder for p in places})


class LedgerTest(unittest.TestCase):
    def read(self, text):
        with tempfile.NamedTemporaryFile("w", suffix=".toml") as file:
            file.write(text)
            file.flush()
            return ledger.read(file.name)

    def test_what_is_printed_can_be_completed_and_read(self):
        name = ("a.cpp", "B::c", 'd("\\n", e);', 'd(e, "\\n");')
        known = self.read(ledger.as_text(*name) + 'verdict = "kept"\nreason = "why"\n')
        self.assertEqual(("kept", "why"), known.entry_of(*name)[4:])
        self.assertIsNone(known.entry_of("a.cpp", "B::f", *name[2:]))

    def test_an_entry_without_a_reason_or_with_another_verdict_is_refused(self):
        text = ledger.as_text("a.cpp", "", "b", "c")
        for rest in ('verdict = "kept"\n', 'verdict = "kept"\nreason = ""\n', 'verdict = "fine"\nreason = "d"\n'):
            with self.subTest(rest), self.assertRaises(ValueError):
                self.read(text + rest)

    def test_the_ledger_of_the_tree_can_be_read(self):
        ledger.read(os.path.join(SOURCE_DIR, "tests", "mutation", "survivors.toml"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
