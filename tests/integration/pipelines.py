#!/usr/bin/env python3
"""pipelines.py BUILD: runs the example and the ready-made pipelines of integration/ with the flashsim of a build."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import yaml

BUILD = pathlib.Path(sys.argv.pop()).resolve()
SOURCE = pathlib.Path(__file__).resolve().parents[2]
SHELL = ["bash", "-eo", "pipefail", "-c"]  # as the runners call it


class Pipelines(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # The example is the root of its own project, with an image that the rule has rehearsed.
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        shutil.copytree(SOURCE / "integration", pathlib.Path(cls.folder.name) / "integration",
                        ignore=shutil.ignore_patterns("build"))
        cls.project = pathlib.Path(cls.folder.name) / "integration/example"
        cls.example = cls.run_here(["make"])
        cls.gitlab = yaml.safe_load((SOURCE / "integration/gitlab-ci.yml").read_text())
        cls.actions = yaml.safe_load((SOURCE / "integration/github-actions.yml").read_text())
        cls.matchers = json.loads((SOURCE / "integration/flashsim-matcher.json").read_text())["problemMatcher"]

    @classmethod
    def run_here(cls, command, **variables):
        path = f"{BUILD}:{os.environ['PATH']}:/usr/sbin"
        return subprocess.run(command, cwd=cls.project, env={**os.environ, "PATH": path, **variables}, text=True,
                              errors="replace", stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def annotations(self, output):
        found = []
        for line in output.splitlines():
            for matcher in self.matchers:
                pattern = matcher["pattern"][0]
                if match := re.search(pattern["regexp"], line):
                    part = {key: match[group] for key, group in pattern.items() if key != "regexp"}
                    part.setdefault("severity", matcher.get("severity"))
                    found.append(tuple(part[key] for key in ("severity", "file", "line", "code")))
        return found

    def test_example_is_clean_and_rehearsed_again_only_after_a_change(self):
        self.assertEqual(self.example.returncode, 0, self.example.stdout)
        self.assertIn("3 of 3 lines carried out", self.example.stdout)
        report = json.loads((self.project / "build/update.img.json").read_text())
        self.assertEqual((report["verdict"], report["ubi"][0]["attached"]), ("clean", True))
        self.assertNotIn("flashsim", self.run_here(["make"]).stdout)
        (self.project / "device.toml").touch()
        self.assertIn("flashsim", self.run_here(["make", "-n"]).stdout)

    def test_guide_shows_the_lines_of_the_example(self):
        guide = (SOURCE / "docs/integrating.md").read_text()
        for path in ("device.toml", "device/app/prepare_flashrig.sh", "device/bin/bootvars", "update/flashrig.script"):
            lines = (self.project / path).read_text().splitlines()
            last = [line for line in lines if line and not line.startswith("#")][-1]
            shown = [block for block in re.findall(r"(?:^    .*\n)+", guide, re.M) if block.endswith(f"    {last}\n")]
            self.assertEqual(len(shown), 1, path)
            self.assertIn(re.sub("^    ", "", shown[0], flags=re.M), "\n".join(lines) + "\n")

    def test_broken_update_fails_the_rule_each_time(self):
        script = (self.project / "update/flashrig.script").read_text()
        broken = self.project / "broken"
        broken.mkdir()
        (broken / "flashrig.script").write_text(script.replace("0x200000 0x200000", "0x200000 0x20000"))
        shutil.copy(self.project / "build/tree/kernel.img", broken)
        for _ in range(2):
            run = self.run_here(["make", "broken.rehearsed"])
            self.assertEqual(run.returncode, 2, run.stdout)
            self.assertRegex(run.stdout, r"make: \*\*\* \[.*: broken.rehearsed\] Error 1")
        self.assertIn(("error", "broken/flashrig.script", "2", "outruns-range"), self.annotations(run.stdout))

    def test_matcher_sees_findings_of_all_kinds_and_nothing_else(self):
        lines = self.run_here(["flashsim", "--chip", "8M,16K,512,16", SOURCE / "examples/traps/lines"]).stdout
        findings = re.findall(r"^\S+flashrig\.script:.*\[[a-z-]+\]$", lines, re.M)
        self.assertEqual(len(self.annotations(lines)), len(findings))
        self.assertEqual({row[0] for row in self.annotations(lines)}, {"error", "warning", "notice"})
        self.assertIn(("error", str(SOURCE / "examples/traps/lines/flashrig.script"), "4", "unknown-command"),
                      self.annotations(lines))
        session = (SOURCE / "docs/sessions/sweep.txt").read_text()
        self.assertEqual(self.annotations(session), [("error", "clean/flashrig.script", "11", "sweep cut")] * 2)

    def test_gitlab_job_rehearses_and_leaves_its_reports(self):
        job = self.gitlab["rehearse"]
        run = self.run_here(SHELL + ["\n".join(job["script"])], **self.gitlab["variables"])
        self.assertEqual(run.returncode, 0, run.stdout)
        for path in [*job["artifacts"]["paths"], *job["artifacts"]["reports"].values()]:
            self.assertTrue((self.project / path).stat().st_size, path)

    def test_actions_step_rehearses_and_leaves_its_reports(self):
        steps = {step["name"]: step for step in self.actions["jobs"]["rehearse"]["steps"] if "name" in step}
        run = self.run_here(SHELL + [steps["Rehearse the update"]["run"]])
        self.assertEqual(run.returncode, 0, run.stdout)
        self.assertIn("::add-matcher::.github/flashsim-matcher.json", run.stdout)
        for path in ("report.json", steps["Show the findings in code scanning"]["with"]["sarif_file"]):
            self.assertTrue((self.project / path).stat().st_size, path)

    def test_sweeps_of_the_pipelines_are_carried_out(self):
        sweeps = [*self.gitlab["sweep"]["script"], *(step["run"] for step in self.actions["jobs"]["rehearse"]["steps"]
                                                     if step.get("name") == "Rehearse bad blocks")]
        self.assertEqual(len(sweeps), 2)
        for command in sweeps:
            run = self.run_here(SHELL + [command], CI_NODE_INDEX="1", CI_NODE_TOTAL="200", **self.gitlab["variables"])
            self.assertEqual(run.returncode, 0, run.stdout)
            self.assertRegex(run.stdout, r"sweep bad: .* (\d+) of \1 runs? passed")


unittest.main()
