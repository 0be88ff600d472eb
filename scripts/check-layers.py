#!/usr/bin/env python3
"""Checks that the library's includes and links follow its layer table.

Every subsystem may use itself and the layers below it, never one beside or
above it:

    platform kernel kit <- platform application kit, platform interface kit
    platform            <- base <- kernel <- messaging <- looper
    datasub over messaging, kernel and the platform's application kit
    bridge (ZvMessage <-> BMessage) over messaging and the application kit
    remote (libzvremote, over ZeroMQ) over looper
    text, numeric, graphics: leaves over kernel and base

A subsystem's own private headers (the .h files in its folder) are for that
subsystem alone; base/internal/ is the private folder every library layer
may use, and platform/kernel/internal/ holds the platform kernel kit's
private headers that every layer above it may use as well (they are not
installed). The check reads the #include lines of the library's sources and
public headers, the target_link_libraries lines of each subsystem's
CMakeLists.txt, and whether every source file of a subsystem (and every
test source) is in its explicit source list. The includes of tests,
examples and benchmarks are not checked.

Usage: check-layers.py [ROOT]        check the tree at ROOT (default: ..)
       check-layers.py --self-test   plant violations in a copy and expect
                                     each one to be found
Exit status 0 when the tree follows the table, 1 otherwise.
"""

import os
import re
import shutil
import sys
import tempfile

# layer -> (folder of its sources, the layers directly below it)
LAYERS = {
    "platform-kernel": ("platform/kernel", []),
    "platform-app": ("platform/app", ["platform-kernel"]),
    "platform-interface": ("platform/interface", ["platform-kernel"]),
    "base": ("base", ["platform-kernel", "platform-interface"]),
    "kernel": ("kernel", ["base"]),
    "messaging": ("messaging", ["kernel"]),
    "looper": ("looper", ["messaging"]),
    "datasub": ("datasub", ["messaging", "platform-app"]),
    "bridge": ("bridge", ["messaging", "platform-app"]),
    # libzvremote, a library of its own over libzvkit's loopers.
    "remote": ("remote", ["looper"]),
    "text": ("text", ["kernel"]),
    "numeric": ("numeric", ["kernel"]),
    "graphics": ("graphics", ["kernel"]),
    # ZvKit.h includes every public header; nothing includes it.
    "umbrella": (None, ["looper", "datasub", "bridge", "remote", "text", "numeric", "graphics"]),
}

# The public headers (include/) by layer. A new header must be added here.
PUBLIC_HEADERS = {
    "base": ["ZvChecks.h", "ZvColor.h", "ZvExport.h", "ZvGeometry.h", "ZvKitVersion.h", "ZvTypeCodes.h"],
    "kernel": ["Benaphore.h", "ZvLocker.h", "ZvSemaphore.h", "ZvThread.h"],
    "messaging": ["ZvByteOrder.h", "ZvList.h", "ZvMessage.h"],
    "looper": ["ZvDescriptorWatch.h", "ZvHandler.h", "ZvLooper.h", "ZvLooperRef.h",
               "ZvMessageQueue.h", "ZvMessageRunner.h", "ZvMessenger.h"],
    "remote": ["ZvRemote.h"],
    "datasub": ["ZvDataLinker.h", "ZvDataRegistry.h", "ZvDataSubscriber.h"],
    "bridge": ["ZvMessageBridge.h"],
    "text": ["UTFString.h", "ZvRString.h", "ZvUTF8.h"],
    "numeric": ["ZvEvaluate.h", "ZvResize.h"],
    "graphics": ["ZvScreen.h", "ZvTransform.h"],
    "umbrella": ["ZvKit.h"],
}

# The platform's headers (platform/include/) by kit.
PLATFORM_HEADERS = {
    "platform-kernel": ["OS.h", "SupportDefs.h", "TypeConstants.h"],
    "platform-app": ["AppDefs.h", "Handler.h", "Locker.h", "Looper.h", "Message.h", "Messenger.h"],
    "platform-interface": ["GraphicsDefs.h", "Rect.h", "Screen.h"],
}

# The private folders shared by every library layer above them.
SHARED_PRIVATE = ("base/internal", "platform/kernel/internal")

SOURCE_SUFFIXES = (".cpp", ".h")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def below(layer, table=LAYERS):
    """The layers a layer may use: itself and everything below it."""
    seen = {layer}
    stack = [layer]
    while stack:
        for lower in table[stack.pop()][1]:
            if lower not in seen:
                seen.add(lower)
                stack.append(lower)
    return seen


def find_cycle(table):
    """A list of layers that form a circle in table, or None."""
    state = {}

    def visit(layer, path):
        state[layer] = "open"
        for lower in table[layer][1]:
            if state.get(lower) == "open":
                return path[path.index(lower):] + [lower] if lower in path else [layer, lower]
            if lower not in state:
                found = visit(lower, path + [lower])
                if found:
                    return found
        state[layer] = "done"
        return None

    for layer in table:
        if layer not in state:
            found = visit(layer, [layer])
            if found:
                return found
    return None


class Tree:
    def __init__(self, root):
        self.root = os.path.abspath(root)
        self.header_layer = {}
        for layer, names in PUBLIC_HEADERS.items():
            for name in names:
                self.header_layer["include/" + name] = layer
        for layer, names in PLATFORM_HEADERS.items():
            for name in names:
                self.header_layer["platform/include/" + name] = layer

    def exists(self, rel):
        return os.path.isfile(os.path.join(self.root, rel))

    def layer_of(self, rel):
        """The layer a repository path belongs to, or None (not library code)."""
        if rel in self.header_layer:
            return self.header_layer[rel]
        for layer, (folder, _) in LAYERS.items():
            if folder and (rel == folder or rel.startswith(folder + "/")):
                return layer
        return None

    def resolve(self, including, kind, name):
        """The repository path an include names, or None for a system header."""
        here = os.path.dirname(including)
        candidates = []
        if kind == '"':
            candidates.append(os.path.normpath(os.path.join(here, name)))
            candidates.append(os.path.normpath(name))
        candidates.append("include/" + name)
        candidates.append("platform/include/" + name)
        for rel in candidates:
            if rel == "include/ZvKitVersion.h" or self.exists(rel):
                return rel
        return None

    def library_files(self):
        files = []
        for folder in ["include", "platform/include"] + [f for f, _ in LAYERS.values() if f]:
            top = os.path.join(self.root, folder)
            for dirpath, _, names in os.walk(top):
                for name in sorted(names):
                    if name.endswith(SOURCE_SUFFIXES):
                        files.append(os.path.relpath(os.path.join(dirpath, name), self.root))
        return sorted(set(files))

    def private_owner(self, rel):
        """For a private header, the folder whose code alone may include it."""
        if rel.startswith("include/") or rel.startswith("platform/include/"):
            return None
        if any(rel.startswith(folder + "/") for folder in SHARED_PRIVATE):
            return None
        folder = os.path.dirname(rel)
        for layer_folder, _ in LAYERS.values():
            if layer_folder and (folder == layer_folder or folder.startswith(layer_folder + "/")):
                return layer_folder
        return folder

    def check_includes(self, problems):
        for rel in self.library_files():
            layer = self.layer_of(rel)
            if rel.startswith("include/") and layer is None:
                problems.append(f"{rel}: public header missing from the layer table "
                                "(scripts/check-layers.py, PUBLIC_HEADERS)")
                continue
            if layer is None:
                continue
            allowed = below(layer)
            with open(os.path.join(self.root, rel), encoding="utf-8", errors="replace") as f:
                for number, line in enumerate(f, 1):
                    match = INCLUDE.match(line)
                    if not match:
                        continue
                    target = self.resolve(rel, match.group(1), match.group(2))
                    if target is None:
                        continue
                    target_layer = self.layer_of(target)
                    if target_layer is None:
                        problems.append(f"{rel}:{number}: includes {target}, which is in no layer")
                    elif target_layer not in allowed:
                        problems.append(f"{rel}:{number}: {layer} includes {target} "
                                        f"({target_layer}), which is not below it")
                    owner = self.private_owner(target)
                    if owner and not (rel == owner or rel.startswith(owner + "/")):
                        problems.append(f"{rel}:{number}: includes {target}, a private "
                                        f"header of {owner}/")

    def check_links(self, problems):
        link = re.compile(r"target_link_libraries\(\s*zvkit_(\w+)([^)]*)\)", re.S)
        for layer, (folder, _) in LAYERS.items():
            if not folder or folder.startswith("platform"):
                continue
            path = os.path.join(self.root, folder, "CMakeLists.txt")
            if not os.path.isfile(path):
                problems.append(f"{folder}/CMakeLists.txt: missing")
                continue
            text = open(path, encoding="utf-8").read()
            allowed = below(layer)
            for match in link.finditer(text):
                for lower in re.findall(r"\bzvkit_(\w+)", match.group(2)):
                    if lower not in allowed:
                        problems.append(f"{folder}/CMakeLists.txt: zvkit_{match.group(1)} "
                                        f"links zvkit_{lower}, which is not below it")
            for dirpath, _, names in os.walk(os.path.join(self.root, folder)):
                for name in names:
                    if name.endswith(".cpp"):
                        source = os.path.relpath(os.path.join(dirpath, name),
                                                 os.path.join(self.root, folder))
                        if not re.search(r"(^|\s)" + re.escape(source) + r"(\s|\))", text):
                            problems.append(f"{folder}/{source}: not in the source list "
                                            f"of {folder}/CMakeLists.txt")

    def check_test_lists(self, problems):
        path = os.path.join(self.root, "tests", "CMakeLists.txt")
        if not os.path.isfile(path):
            return
        listed = {}
        for match in re.finditer(r"zvkit_add_tests\(\s*(\w+)([^)]*)\)", open(path).read()):
            listed[match.group(1)] = set(match.group(2).split())
        tests = os.path.join(self.root, "tests")
        for name in sorted(os.listdir(tests)):
            folder = os.path.join(tests, name)
            if not os.path.isdir(folder) or name in ("consumer", "support", "data"):
                continue
            for source in sorted(os.listdir(folder)):
                if source.endswith(".cpp") and source not in listed.get(name, set()):
                    problems.append(f"tests/{name}/{source}: not in the test list of "
                                    "tests/CMakeLists.txt")

    def check(self):
        problems = []
        cycle = find_cycle(LAYERS)
        if cycle:
            problems.append("the layer table has a circle: " + " -> ".join(cycle))
            return problems
        self.check_includes(problems)
        self.check_links(problems)
        self.check_test_lists(problems)
        return problems


def run(root):
    problems = Tree(root).check()
    for problem in problems:
        print(problem)
    if problems:
        print(f"layer check: {len(problems)} problem(s)")
        return 1
    print("layer check: every include and link follows the layer table")
    return 0


def self_test(root):
    """Plants one violation at a time in a copy of the tree; each must fail."""
    plants = [
        ("kernel/ZvLocker.cpp", "#include <ZvLooper.h>\n", "kernel includes include/ZvLooper.h"),
        ("include/ZvGeometry.h", "#include <ZvMessage.h>\n", "base includes include/ZvMessage.h"),
        ("text/ZvUTF8.cpp", "#include <ZvDataRegistry.h>\n", "text includes include/ZvDataRegistry.h"),
        ("messaging/ZvList.cpp", "#include <Looper.h>\n", "platform/include/Looper.h"),
        ("looper/ZvHandler.cpp", '#include "messaging/FlatFormat.h"\n', "a private header of messaging/"),
        ("kernel/ZvLocker.cpp", '#include "platform/kernel/KernelPrivate.h"\n',
         "a private header of platform/kernel/"),
        ("platform/kernel/Semaphores.cpp", '#include "base/internal/Spin.h"\n',
         "platform-kernel includes base/internal/Spin.h"),
        ("kernel/CMakeLists.txt", "target_link_libraries(zvkit_kernel PUBLIC zvkit_looper)\n",
         "links zvkit_looper"),
        ("numeric/Unlisted.cpp", "int unlisted;\n", "not in the source list"),
        ("tests/numeric/UnlistedTest.cpp", "int unlisted;\n", "not in the test list"),
    ]
    failures = 0
    with tempfile.TemporaryDirectory() as scratch:
        copy = os.path.join(scratch, "tree")
        folders = ["include", "platform", "tests"]
        folders += [f for f, _ in LAYERS.values() if f and "/" not in f]
        for folder in folders:
            shutil.copytree(os.path.join(root, folder), os.path.join(copy, folder))
        clean = Tree(copy).check()
        if clean:
            print("self-test: the unchanged copy should pass, but:\n  " + "\n  ".join(clean))
            failures += 1
        for rel, line, expected in plants:
            path = os.path.join(copy, rel)
            before = open(path).read() if os.path.exists(path) else None
            with open(path, "a") as f:
                f.write(line)
            found = Tree(copy).check()
            if not any(expected in problem for problem in found):
                print(f"self-test: planting {line.strip()!r} in {rel} was not caught")
                failures += 1
            if before is None:
                os.remove(path)
            else:
                with open(path, "w") as f:
                    f.write(before)
    circle = dict(LAYERS)
    circle["base"] = ("base", ["platform-kernel", "looper"])
    if not find_cycle(circle):
        print("self-test: a circle in the table was not caught")
        failures += 1
    print(f"layer check self-test: {len(plants) + 2 - failures} passed, {failures} failed")
    return 1 if failures else 0


def main(argv):
    here = os.path.dirname(os.path.abspath(__file__))
    if len(argv) > 1 and argv[1] == "--self-test":
        root = argv[2] if len(argv) > 2 else os.path.join(here, "..")
        return self_test(os.path.abspath(root))
    root = argv[1] if len(argv) > 1 else os.path.join(here, "..")
    return run(root)


if __name__ == "__main__":
    sys.exit(main(sys.argv))
