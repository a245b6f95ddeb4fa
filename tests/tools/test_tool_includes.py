"""The check that no tool includes another tool's headers, on small trees.

    python3 tests/tools/test_tool_includes.py
"""

import importlib.machinery
import pathlib
import tempfile
import types
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-tool-includes.py"
# The script's name has dashes: it is loaded from its path, not imported.
loader = importlib.machinery.SourceFileLoader("check_tool_includes", str(SCRIPT))
check = types.ModuleType(loader.name)
loader.exec_module(check)


class ToolIncludes(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.root = pathlib.Path(self.dir.name)

    def tearDown(self):
        self.dir.cleanup()

    def write(self, path, text=""):
        file = self.root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def test_a_header_only_another_tool_has_is_reported_with_its_line(self):
        self.write("tools/aov-rec/SessionReader.h")
        self.write("tools/aov-sim/ReplayNode.h", '#pragma once\n\n#include "SessionReader.h"\n')
        self.assertEqual(check.violations(self.root),
                         ["tools/aov-sim/ReplayNode.h:3: includes SessionReader.h of aov-rec"])

    def test_an_include_with_a_folder_is_matched_by_its_path(self):
        self.write("tools/aov-rec/preload/Recorder.h")
        self.write("tools/aov-kdev/Server.cpp", "#include <preload/Recorder.h>\n")
        self.write("tools/aov-kdev/Other.cpp", '#include "other/Recorder.h"\n')
        self.assertEqual(check.violations(self.root),
                         ["tools/aov-kdev/Server.cpp:1: includes preload/Recorder.h of aov-rec"])

    def test_own_common_and_library_headers_are_allowed(self):
        # A name both tools have is the includer's own; tools/common and
        # session/ are below every tool.
        self.write("tools/aov-sim/Options.h")
        self.write("tools/aov-rec/Options.h")
        self.write("tools/common/NumberText.h")
        self.write("session/include/aovsession/SessionReader.h")
        self.write("tools/aov-sim/main.cpp",
                   '#include "Options.h"\n#include "NumberText.h"\n'
                   '#include "aovsession/SessionReader.h"\n#include <vector>\n')
        self.assertEqual(check.violations(self.root), [])


if __name__ == "__main__":
    unittest.main()
