"""What is changed in sources, and what is left alone."""

import pytest

from mutants.mutant import Source

places = pytest.importorskip("mutants.places", reason="tree-sitter finds the places of mutants")


def changes(path, text, line=2):
    """What the given line of a source becomes, with the kind of each change."""
    found = places.mutants_of(Source(path, text.encode()))
    return [(mutant.now, mutant.operator) for mutant in found if mutant.line == line]


def in_cpp(statement, before=""):
    return changes("a.cpp", f"int f(int a, int b) {{ {before}\n{statement}\n}}")


def in_python(statement):
    return changes("a.py", f"def f(a, b):\n    {statement}\n")


@pytest.mark.parametrize(
    ("statement", "becomes"),
    [
        ("g(a < b);", [";", "g(a <= b);", "g(a >= b);"]),
        ("g(a == b);", [";", "g(a != b);"]),
        ("g(a * -b);", [";", "g(a / -b);", "g(a * (b));"]),
        ("a += b;", [";", "a -= b;"]),
        ("++a;", [";", "--a;"]),
        ("a = b;", [";"]),
        ("g(a && !b);", [";", "g(a || !b);", "g(a && (b));"]),
        ("if (a) g();", ["if (!(a)) g();", "if (a) ;"]),
        ("if (int c = a; c) g();", ["if (int c = a; !(c)) g();", "if (int c = a; c) ;"]),
        ("if (const int c = a) g();", ["if (const int c = a) ;"]),
        ("if (!a) return;", [";", "if ((a)) return;"]),
        ("if (a) [[unlikely]] { throw E(1); }", [";", "if (!(a)) [[unlikely]] { throw E(1); }"]),
        ("while (a) continue;", ["while (!(a)) continue;", "while (a) ;"]),
        ("a = b ? a : 7u;", [";", "a = !(b) ? a : 7u;", "a = b ? a : 8u;", "a = b ? a : 6u;"]),
        ("return 0;", ["return 1;", "return (-1);"]),
        ("return nullptr;", []),
        ("return false;", ["return true;"]),
        ("return 0.5;", ["return {};", "return (0.5 + 1.0);"]),
        ("return g(a, b, b);", ["return {};", "return g(b, a, b);"]),
        ("return Ref::steal(a);", ["return {};", "return Ref::borrow(a);"]),
        ("return capi::Ref::borrow(a);", ["return {};", "return capi::Ref::steal(a);"]),
        ("return Py_NewRef(a);", ["return {};", "return (a);"]),
        ("return a.release();", ["return {};", "return a.get();"]),
        ("const Guard guard(a);", [";"]),
        ("Pause pause;", [";"]),
    ],
)
def test_cpp_is_changed(statement, becomes):
    assert sorted(now for now, _ in in_cpp(statement)) == sorted(becomes)


@pytest.mark.parametrize(
    "statement",
    [
        "static_assert(1 < 2);",
        "assert(a < 1);",
        '#include "1.hpp"',
        "// a < b",
        'throw E("a" + 1);',
        "auto c = []() noexcept(1 < 2) {};\nc();",
    ],
)
def test_cpp_that_nobody_runs_is_left_alone(statement):
    assert in_cpp(statement) == []


def test_an_object_that_is_spoken_of_stays():
    assert changes("a.cpp", "void f() {\nGuard guard;\nguard.let_go();\n}") == []


def test_a_macro_before_a_function_hides_nothing():
    text = "QUORVANE_SIMD\nvoid f(int a) { g(a < 2); }\n"
    found = places.mutants_of(Source("a.cpp", text.encode()))
    assert "void f(int a) { g(a <= 2); }" in [mutant.now for mutant in found]
    assert all(mutant.text.startswith(b"QUORVANE_SIMD\n") for mutant in found)


@pytest.mark.parametrize(
    ("statement", "becomes"),
    [
        ("if a < b: g()", ["if a <= b: g()", "if a >= b: g()", "if a < b: pass"]),
        ("x = a is not b in a", ["x = a is b in a", "x = a is not b not in a"]),
        ("x = a not in b", ["x = a in b"]),
        ("x = a and not b", ["x = a or not b", "x = a and bool(b)"]),
        ("if a: return b", ["pass", "if (not (a)): return b", "if a: return None"]),
        ("while a: break", ["while (not (a)): break", "while a: pass"]),
        ("x = a if b else c", ["x = a if (not (b)) else c"]),
        ("x = 1", ["x = 2", "x = 0"]),
        ("x = [c for c in a if c]", ["x = [c for c in a if (not (c))]"]),
        ("x = a // -b", ["x = a * -b", "x = a // (b)"]),
        ("x = a | 0.5", ["x = a & 0.5", "x = a | (0.5 + 1.0)"]),
        ("a.b += 1", ["pass", "a.b -= 1", "a.b += 2", "a.b += 0"]),
        ("a.b = True", ["pass", "a.b = False"]),
        ("a[b] = a", ["pass"]),
        ("x = a", []),
        ("raise a(1 + 2)", ["pass"]),
        ("return None", []),
        ("return a(b, a, *b, c=a)", ["return None", "return a(a, b, *b, c=a)"]),
    ],
)
def test_python_is_changed(statement, becomes):
    assert sorted(now for now, _ in in_python(statement)) == sorted(becomes)


@pytest.mark.parametrize(
    "statement",
    [
        '"""Words: 1 < 2."""',
        'x = f"{a + 1}"',
        'x = "%d" % a',
        "x: list[int] | None",
        "assert a < b",
        "import a",
    ],
)
def test_python_that_is_only_said_is_left_alone(statement):
    assert in_python(statement) == []


def test_what_only_type_checkers_read_is_left_alone():
    assert places.mutants_of(Source("a.py", b"if TYPE_CHECKING:\n    x = 1\n")) == []


def test_names_of_types_outside_functions_are_left_alone():
    assert places.mutants_of(Source("a.py", b"Either = int | str\n")) == []


def test_a_place_knows_what_it_stands_in():
    (mutant,) = places.mutants_of(Source("a.py", b"def f(a):\n    g(\n        not a,\n    )\n"))[
        -1:
    ]
    assert mutant.operator == "condition"
    assert mutant.ranges[0] == (3, 3)
    assert mutant.ranges[-1] == (1, 4)


def test_a_change_of_several_lines_is_named_by_its_kind():
    (mutant,) = places.mutants_of(Source("a.py", b"def f():\n    g(\n    )\n"))
    assert mutant.key == ("a.py", "g(", "statement removed over several lines")
    assert mutant.text == b"def f():\n    pass\n"


def test_only_the_package_is_changed(tmp_path):
    for path in ("cpp/a.cpp", "cpp/b/c.hpp", "cpp/tests/t.cpp", "src/quorvane/d.py", "e.py"):
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text("")
    found = [source.path for source in places.sources_of(tmp_path)]
    assert found == ["cpp/a.cpp", "cpp/b/c.hpp", "src/quorvane/d.py"]
    assert places.all_mutants(tmp_path) == []
