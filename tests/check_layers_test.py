#!/usr/bin/python3
"""scripts/check-layers finds what breaks the law between the folders, and nothing else."""

import subprocess
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).resolve().parent.parent / "scripts/check-layers"


class CheckLayersTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="orvex-layers-")
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)
        self.write("scripts/role-headers", "# roles\nnetwork/bag_controller.h\n")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def breaches(self, sources):
        """The lines that the script prints about a tree of {source: its include's argument}."""
        for source, include in sources.items():
            self.write(source, f"#pragma once\n#include {include}\n")
        run = subprocess.run([SCRIPT, self.root], capture_output=True, text=True, check=False)
        self.assertEqual(run.returncode, 1 if run.stdout else 0, run.stderr)
        return run.stdout.splitlines()

    def assert_allowed(self, sources):
        self.assertEqual(self.breaches(sources), [])

    def assert_each_refused(self, sources):
        found = self.breaches(sources)
        expected = [f'{source}:2: may not include {include[1:-1]}' for source, include in sorted(sources.items())]
        self.assertEqual(sorted(found), sorted(expected))

    def test_what_the_law_allows_passes(self):
        self.assert_allowed({
            "platform/clock.h": "<chrono>",
            "platform/log.h": "<fmt/core.h>",
            "platform/linux/bus.cpp": "<systemd/sd-bus.h>",
            "platform/linux/lock_file.cpp": "<sys/file.h>",
            "platform/linux/bus_test.cpp": '"platform/fakes/fake_bus.h"',
            "platform/clock_contract_test.cpp": '"platform/linux/clock.h"',
            "core/compressed_stream.cpp": "<zlib.h>",
            "query/engaged_completion_store.cpp": "<sqlite3.h>",
            "query/client_state.h": '"network/bag_controller.h"',
            "query/client_state_test.cpp": '"platform/fakes/manual_dispatcher.h"',
            "network/retry.cpp": '"daemon/assembly.h"',
            "daemon/listener.h": '"query/client_state.h"',
            "daemon/main.cpp": '"platform/linux/bus.h"',
            "tools/orvex_tool.cpp": "<CLI/CLI.hpp>",
            "tests/raw_client.cpp": "<curl/curl.h>",
        })

    def test_nothing_includes_upwards(self):
        self.assert_each_refused({
            "platform/text.cpp": '"core/constants.h"',
            "core/bag.h": '"network/bag_controller.h"',
            "network/retry.h": '"daemon/listener.h"',
            "daemon/assembly.h": '"query/client_state.h"',
            "client/client.h": '"core/constants.h"',
            "platform/linux/bus.h": '"core/constants.h"',
        })

    def test_only_platform_linux_knows_the_libraries_behind_it(self):
        self.assert_each_refused({
            "platform/log.cpp": "<spdlog/spdlog.h>",
            "network/retry.cpp": "<curl/curl.h>",
            "query/client_state.cpp": "<sqlite3.h>",
            "feedback/file_container.cpp": "<unistd.h>",
            "daemon/listener.cpp": '"platform/linux/bus.h"',
            "resources/store_test.cpp": '"platform/linux/file_manager.h"',
            "query/query_cache.cpp": '"platform/fakes/manual_dispatcher.h"',
        })

    def test_peers_see_each_others_role_headers_only(self):
        self.assert_each_refused({
            "query/client_state.cpp": '"network/request_builder.h"',
            "resources/store.cpp": '"feedback/file_container.h"',
        })

    def test_a_way_round_is_no_way(self):
        self.write("network/inner.h", "#pragma once\n")
        self.assert_allowed({"network/outer.cpp": '"inner.h"'})
        self.assert_each_refused({
            "query/a.cpp": '"../network/inner.h"',
            "query/b.cpp": '"query/../network/inner.h"',
        })
        self.assertEqual(self.breaches({"query/a.cpp": "<string>", "query/b.cpp": "<string>", "utils/c.h": "<string>"}),
                         ["utils/c.h: the law names no such folder"])

    def test_a_tree_without_sources_is_no_success(self):
        self.assertEqual(self.breaches({}), [f"{self.root}: no sources"])


if __name__ == "__main__":
    unittest.main()
