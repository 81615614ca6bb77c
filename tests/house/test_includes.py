"""Who may include whom, and what the core must not touch."""

import os
import tempfile
import unittest

import tree

STANDARD = set(
    """algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes
    climits cmath compare complex concepts condition_variable coroutine cstdarg cstddef cstdint cstdlib cstring
    cuchar cwchar cwctype deque exception execution forward_list functional future initializer_list iterator latch
    limits list map memory memory_resource mutex new numbers numeric optional queue random ranges ratio regex
    scoped_allocator semaphore set shared_mutex source_location span stack stdexcept stop_token string string_view
    system_error tuple type_traits typeindex typeinfo unordered_map unordered_set utility valarray variant vector
    version""".split()
)
# Standard headers that print, open, sleep, read a clock, or depend on the locale of the process.
OUTWARD = set(
    """clocale codecvt csetjmp csignal cstdio ctime filesystem fstream iomanip ios iostream istream locale ostream
    sstream streambuf strstream syncstream thread""".split()
)
# The core, and what runs it on any machine.
WALLED = (*tree.CORE, "runtime")
# The runtime tells threads apart; it starts none.
NAMES_THREADS = {"runtime": {"thread"}}
# Comes with the compiler's own C++ runtime and is the only way to the type's name of an unknown thrown object.
RUNTIME = {"services/type_names.cpp": {"cxxabi.h"}}

# From the folder on the left, "" includes may lead to the folders and files on the right only.
ARROWS = {
    "kit": {"kit"},
    "services": {"kit", "services"},
    "MorvikCoreLib": {"kit", "services", "MorvikCoreLib"},
    "testing": {"kit", "services", "MorvikCoreLib", "testing"},
    "runtime": {"kit", "services", "MorvikCoreLib", "runtime", "morvik"},
    "host": {"kit", "services", "MorvikCoreLib", "runtime", "host", "morvik"},
    "include": {"morvik"},
    "simulation": {"kit", "services", "MorvikCoreLib", "runtime", "host", "testing", "morvik", "simulation"},
    "proofs": {
        "kit", "services", "MorvikCoreLib", "runtime", "host", "testing", "morvik", "simulation", "proofs",
    },
    # What is expected of the kit is written down apart from it: no table and no constant of what is checked.
    "proofs/oracle": {
        "kit", "morvik/ledger.h", "morvik/recorded.h", "services/json_writer.h", "testing", "proofs/oracle",
    },
    "apps/device": {
        "kit", "services", "MorvikCoreLib", "runtime", "host", "testing", "simulation", "morvik",
        "apps/text", "apps/command_line", "apps/device",
    },
    "apps/text": {"apps/text"},
    "apps/command_line": {"apps/command_line"},
    "apps/service": {
        "apps/command_line", "apps/text", "apps/service", "morvik/version.h", "testing/service_endpoint.h",
    },
}

# Folders of rooms, each room with those that it may include as well. What lies in the folder itself puts the
# rooms together. A room is named after all that it stands on.
ROOMS = {
    "host": {
        "compress": [],
        "crypto": [],
        "json": [],
        "posix": [],
        "linux": ["posix"],
        "loop": ["posix"],
        "net": ["compress", "posix"],
        "store": ["linux", "posix"],
    },
    "proofs": {
        "oracle": [],
        "run": ["oracle"],
        "scripts": ["oracle", "run"],
    },
    "apps/service": {
        "base": [],
        "http": ["base"],
        "checks": ["base", "http"],
        "wire": ["base", "http", "checks"],
        "store": ["base", "http"],
        "answers": ["base", "http", "checks", "wire", "store"],
        "inspect": ["base", "http", "checks", "store", "answers"],
        "expect": ["base", "http", "store", "inspect"],
    },
}

# The headers that apps include as "morvik/…" lie here.
APP_HEADERS = "include"

FORBIDDEN_IN_CORE = {
    "reads a clock": r"\w_clock\s*::\s*now\b|\b(gettimeofday|clock_gettime|timespec_get)\b|\bstd::(time|clock)\b"
                     r"|(?<![\w.>])time\s*\(\s*(nullptr|NULL|0)\s*\)",
    "converts time by the process's zone": r"\b(localtime|gmtime|mktime|strftime)(_r)?\b",
    "waits": r"\b(sleep_for|sleep_until|usleep|nanosleep)\b",
    "starts a thread": r"\bstd::(jthread|async)\b|\bstd::thread\b(?!\s*::)|\bpthread_\w+",
    "prints": r"\b(v?f?printf|f?puts|putchar|perror|fwrite)\b|\bstd::(cout|cerr|clog)\b",
    "opens a file or a socket": r"\b(fopen|freopen|[io]?fstream)\b|(?<!\w)::(open|socket|connect)\b",
    "reads the environment": r"\b(secure_)?getenv\b|\b(set|put)env\b",
    "asks which process it is": r"\bget(p|pp|t)id\b",
    "takes chance from outside its port": r"\b(random_device|srand|rand)\b",
}

# Headers that the oracle may include bring names along that it may not use.
OF_THE_KIT = r"\b(services::(?!jsonDescription\b)|runtime::|host::)\w+|\bkFendo\w+"

INCLUDE = r"(?m)^[ \t]*#[ \t]*(?:include|include_next|import)[ \t]*([<\"])([^>\"]+)[>\"]"
# A list that a header includes may include as well.
INCLUDING = (".h", ".cpp", ".inc")
OWN_FOLDERS = {*tree.CODE, "morvik"}


def bad_includes(root, folder):
    """One line for every include of the folder that breaks the rules."""
    in_core = folder in WALLED
    wrong = []
    for path in tree.cpp_files(root, [folder], INCLUDING):
        for line, match in tree.findings(tree.without_comments(tree.read(root, path)), INCLUDE):
            kind, target = match[1], match[2]
            where = f"{path}:{line}: includes {target}"
            if kind == '"':
                allowed = ARROWS[folder]
                if not any(target == name or target.startswith(name + "/") for name in allowed):
                    wrong.append(f"{where}, but {folder} may include {', '.join(sorted(allowed))} only")
                else:
                    base = APP_HEADERS if target.startswith("morvik/") else ""
                    if not os.path.isfile(os.path.join(root, base, target)):
                        wrong.append(f"{where}, which is not in the tree")
            elif target.split("/")[0] in OWN_FOLDERS:
                wrong.append(f"{where} in angle brackets; quote what is in the tree")
            elif folder == "include" and target not in STANDARD:
                wrong.append(f"{where}, but what apps include stands on the C++ standard library alone")
            elif in_core and target in NAMES_THREADS.get(folder, set()):
                continue
            elif in_core and target in OUTWARD:
                wrong.append(f"{where}, which reaches out of the core")
            elif in_core and target not in STANDARD | RUNTIME.get(path, set()):
                wrong.append(f"{where}, which is not a header of the C++ standard library")
    return wrong


def bad_rooms(root):
    """One line for every include in a room that leads to a room of the same folder which that may not know."""
    wrong = []
    for folder, rooms in ROOMS.items():
        for path in tree.cpp_files(root, [folder], INCLUDING):
            inside = path[len(folder) + 1 :]
            if "/" in inside:
                wrong += bad_includes_of_room(root, path, folder, inside.split("/")[0], rooms)
    return wrong


def bad_includes_of_room(root, path, folder, room, rooms):
    if room not in rooms:
        return [f"{path}: there is no room {room}"]
    known = {room, *rooms[room]}
    wrong = []
    for line, match in tree.findings(tree.without_comments(tree.read(root, path)), INCLUDE):
        if match[1] != '"' or not match[2].startswith(folder + "/"):
            continue
        if match[2][len(folder) + 1 :].split("/")[0] not in known:
            names = ", ".join(sorted(known))
            wrong.append(f"{path}:{line}: includes {match[2]}, but {folder}/{room} may know {names} only")
    return wrong


def forbidden_words(root, folders, rules):
    """One line for every place in the folders' code that a rule forbids."""
    wrong = []
    for path in tree.cpp_files(root, folders, INCLUDING):
        code = tree.code_only(tree.read(root, path))
        for reason, pattern in rules.items():
            for line, match in tree.findings(code, pattern):
                wrong.append(f"{path}:{line}: {reason}: {match[0]}")
    return wrong


class TheTree(unittest.TestCase):
    def test_every_folder_includes_only_what_its_arrow_allows(self):
        self.assertTrue(tree.cpp_files(tree.ROOT, ARROWS))
        for folder in ARROWS:
            with self.subTest(folder=folder):
                self.assertEqual(bad_includes(tree.ROOT, folder), [])

    def test_the_oracle_names_nothing_of_what_it_checks(self):
        rules = {"is the kit's own": OF_THE_KIT}
        self.assertEqual(forbidden_words(tree.ROOT, ["proofs/oracle"], rules), [])

    def test_every_room_knows_only_those_that_it_stands_on(self):
        self.assertEqual(bad_rooms(tree.ROOT), [])

    def test_every_room_has_its_arrows_and_they_lead_to_rooms_above_it_in_the_table(self):
        for folder, rooms in ROOMS.items():
            with self.subTest(folder=folder):
                inside = {path[len(folder) + 1 :] for path in tree.cpp_files(tree.ROOT, [folder])}
                self.assertEqual({path.split("/")[0] for path in inside if "/" in path}, set(rooms))
                seen = set()
                for room, others in rooms.items():
                    self.assertLessEqual(set(others), seen, room)
                    seen.add(room)

    def test_core_and_runtime_read_no_clock_and_do_not_wait_print_or_open(self):
        for folder in WALLED:
            with self.subTest(folder=folder):
                self.assertTrue(tree.cpp_files(tree.ROOT, [folder]))
                self.assertEqual(forbidden_words(tree.ROOT, [folder], FORBIDDEN_IN_CORE), [])

    def test_the_subsystems_leave_catching_to_the_one_guard(self):
        rules = {"catches on its own": r"\b(try|catch)\b"}
        self.assertEqual(forbidden_words(tree.ROOT, ["MorvikCoreLib"], rules), [])

    def test_no_test_is_disabled_skipped_or_waits_by_sleeping(self):
        rules = {
            "is disabled": r"\bDISABLED_\w*",
            "is skipped": r"\bGTEST_SKIP\b",
            "sleeps": FORBIDDEN_IN_CORE["waits"],
        }
        self.assertEqual(forbidden_words(tree.ROOT, ["tests"], rules), [])


class TheChecks(unittest.TestCase):
    """A check that cannot fail is none: each is shown a small tree that breaks it."""

    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.root = made.name

    def write(self, path, text):
        os.makedirs(os.path.dirname(os.path.join(self.root, path)), exist_ok=True)
        with open(os.path.join(self.root, path), "w", encoding="utf-8") as file:
            file.write(text)

    def test_an_include_against_the_arrow_is_found(self):
        self.write("services/a.h", "")
        self.write("kit/b.h", '\n#include "services/a.h"\n')
        self.assertEqual(
            bad_includes(self.root, "kit"), ["kit/b.h:2: includes services/a.h, but kit may include kit only"]
        )

    def test_an_include_that_is_written_in_another_way_is_found(self):
        self.write("host/a.h", "")
        self.write("testing/b.cpp", "#include <host/a.h>\n")
        self.assertEqual(
            bad_includes(self.root, "testing"),
            ["testing/b.cpp:1: includes host/a.h in angle brackets; quote what is in the tree"],
        )
        self.write("services/c.inc", "#include <unistd.h>\n")
        self.write("services/d.cpp", "#import <curl/curl.h>\n")
        self.assertEqual(
            bad_includes(self.root, "services"),
            ["services/c.inc:1: includes unistd.h, which is not a header of the C++ standard library",
             "services/d.cpp:1: includes curl/curl.h, which is not a header of the C++ standard library"],
        )

    def test_a_table_of_the_kit_in_the_oracle_is_found(self):
        self.write("runtime/ledger/a.h", "")
        self.write(
            "proofs/oracle/b.cpp",
            '#include "runtime/ledger/a.h"\nauto c = services::checkNilToNo(runtime::kD);\n',
        )
        self.assertEqual(
            bad_includes(self.root, "proofs/oracle"),
            ["proofs/oracle/b.cpp:1: includes runtime/ledger/a.h, but proofs/oracle may include kit, morvik/ledger.h, "
             "morvik/recorded.h, proofs/oracle, services/json_writer.h, testing only"],
        )
        self.assertEqual(len(forbidden_words(self.root, ["proofs/oracle"], {"is the kit's own": OF_THE_KIT})), 2)

    def test_of_the_headers_for_apps_the_service_may_include_the_version_alone(self):
        self.write("include/morvik/version.h", "")
        self.write("include/morvik/morvik.h", "")
        self.write("apps/service/a.cpp", '#include "morvik/version.h"\n#include "morvik/morvik.h"\n')
        self.assertEqual(
            bad_includes(self.root, "apps/service"),
            ["apps/service/a.cpp:2: includes morvik/morvik.h, "
             "but apps/service may include apps/command_line, apps/service, apps/text, morvik/version.h, "
             "testing/service_endpoint.h only"],
        )

    def test_an_include_against_an_arrow_between_rooms_of_the_service_is_found(self):
        self.write("apps/service/store/b.h", "")
        self.write("apps/service/http/a.h", '#include "apps/service/store/b.h"\n')
        self.assertEqual(
            bad_rooms(self.root),
            [
                "apps/service/http/a.h:1: includes apps/service/store/b.h, "
                "but apps/service/http may know base, http only"
            ],
        )

    def test_a_third_party_header_in_the_core_is_found(self):
        self.write("services/a.cpp", "#  include <curl/curl.h>\n")
        self.assertEqual(
            bad_includes(self.root, "services"),
            ["services/a.cpp:1: includes curl/curl.h, which is not a header of the C++ standard library"],
        )

    def test_a_header_that_reaches_out_of_the_core_is_found(self):
        self.write("kit/a.cpp", "#include <iostream>\n")
        self.assertEqual(
            bad_includes(self.root, "kit"), ["kit/a.cpp:1: includes iostream, which reaches out of the core"]
        )

    def test_an_include_of_a_file_that_is_not_there_is_found(self):
        self.write("kit/a.cpp", '#include "kit/gone.h"\n')
        self.assertEqual(bad_includes(self.root, "kit"), ["kit/a.cpp:1: includes kit/gone.h, which is not in the tree"])

    def test_a_header_for_apps_that_leads_into_the_house_is_found(self):
        self.write("kit/a.h", "")
        self.write("include/morvik/b.h", '#include "kit/a.h"\n#include <zlib.h>\n')
        self.assertEqual(
            bad_includes(self.root, "include"),
            [
                "include/morvik/b.h:1: includes kit/a.h, but include may include morvik only",
                "include/morvik/b.h:2: includes zlib.h, but what apps include stands on the C++ standard library alone",
            ],
        )

    def test_a_header_for_apps_is_found_where_it_lies(self):
        self.write("include/morvik/a.h", "")
        self.write("host/b.h", '#include "morvik/a.h"\n#include "morvik/gone.h"\n')
        self.assertEqual(
            bad_includes(self.root, "host"), ["host/b.h:2: includes morvik/gone.h, which is not in the tree"]
        )

    def test_a_runtime_that_knows_its_host_is_found(self):
        self.write("host/a.h", "")
        self.write("runtime/b.cpp", '#include "host/a.h"\n#include <uv.h>\n#include <thread>\n')
        self.assertEqual(
            bad_includes(self.root, "runtime"),
            ["runtime/b.cpp:1: includes host/a.h, but runtime may include MorvikCoreLib, kit, morvik, "
             "runtime, services only",
             "runtime/b.cpp:2: includes uv.h, which is not a header of the C++ standard library"],
        )

    def test_a_room_that_knows_another_is_found(self):
        self.write("host/json/a.cpp", '#include "host/json/a.h"\n#include "host/store/b.h"\n#include "host/c.h"\n')
        self.write("host/store/b.cpp", '#include "host/posix/d.h"\n// #include "host/net/e.h"\n')
        self.write("host/cellar/f.h", "")
        self.write("host/c.h", '#include "host/store/b.h"\n')
        self.assertEqual(
            bad_rooms(self.root),
            ["host/cellar/f.h: there is no room cellar",
             "host/json/a.cpp:2: includes host/store/b.h, but host/json may know json only",
             "host/json/a.cpp:3: includes host/c.h, but host/json may know json only"],
        )

    def test_standard_headers_the_own_tree_and_commented_includes_pass(self):
        self.write("kit/a.h", "")
        self.write(
            "kit/a.cpp",
            '#include "kit/a.h"\n#include <vector>\n// #include <curl/curl.h>\n/*\n#include <ctime>\n*/',
        )
        self.assertEqual(bad_includes(self.root, "kit"), [])

    def test_every_forbidden_word_is_found_in_code(self):
        examples = {
            "reads a clock": "auto t = std::chrono::system_clock::now();",
            "converts time by the process's zone": "localtime_r(&a, &b);",
            "waits": "std::this_thread::sleep_for(x);",
            "starts a thread": "std::thread t;",
            "prints": 'std::printf("x");',
            "opens a file or a socket": 'auto f = fopen("x", "r");',
            "reads the environment": 'std::getenv("HOME");',
            "asks which process it is": "auto p = ::getpid();",
            "takes chance from outside its port": "std::random_device d;",
        }
        self.assertEqual(set(examples), set(FORBIDDEN_IN_CORE))
        for reason, code in examples.items():
            with self.subTest(reason=reason):
                self.write("kit/a.cpp", "\n" + code + "\n")
                found = forbidden_words(self.root, ["kit"], FORBIDDEN_IN_CORE)
                self.assertEqual(len(found), 1, found)
                self.assertTrue(found[0].startswith(f"kit/a.cpp:2: {reason}: "), found)

    def test_words_in_comments_and_strings_pass(self):
        self.write(
            "kit/a.cpp",
            '// printf\n/* getenv */ auto a = "std::cout \\" puts"; auto b = R"x(fopen)x"; '
            "auto c = 1'000; char d = '\"';\n"
            'auto e = "sleep_for";\n',
        )
        self.assertEqual(forbidden_words(self.root, ["kit"], FORBIDDEN_IN_CORE), [])


if __name__ == "__main__":
    unittest.main()
