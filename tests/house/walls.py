"""Who may include whom: the walls of the house as docs/architecture.md draws them, and what crosses
them."""

import dataclasses
import pathlib
import re

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include\b[ \t]*(?P<what>[^\n]*)', re.MULTILINE)
NAMED = re.compile(r'(?:<(?P<public>[^>]+)>|"(?P<private>[^"]+)")')
OTHER_WAYS = re.compile(r'^[ \t]*#[ \t]*(?:include_next|import)\b|__has_include\b', re.MULTILINE)
COMMENT = re.compile(r'/\*.*?\*/', re.DOTALL)
SUFFIXES = {".cc", ".h"}

# The folders of public headers.
LIBRARY = "include/"
PLATFORM = "platform/include/"
LINUX = "platform/linux/include/"
HANDLERS = "handlers/include/"
PUBLIC = [LIBRARY, PLATFORM, LINUX, HANDLERS]

# Headers of the system that are no component of Linux: what every POSIX host has.
POSIX = ["unistd.h", "sys/types.h", "syslog.h"]
ANY = [""]


@dataclasses.dataclass(frozen=True)
class Part:
    folder: str  # or the beginning of a path
    public: list  # the public headers that it may include, as beginnings of their paths
    private: list = ()  # the folders whose private headers it may include
    system: list = ()  # the headers of the system that it may include, as beginnings of their names
    third_party: bool = True  # whether it may include others' headers besides those of JSON


PRODUCT = ["lib-webapi/", "platform/linux/", "handlers/", "apps/quillonctl/",
           "apps/quillon-webapid/"]
FRONT = [LINUX, "platform/include/velamailserver/maillog.h"]
WORKER = [LINUX, LIBRARY, PLATFORM, HANDLERS]

# The first whose folder begins a file's path is the file's.
PARTS = [
    Part(LIBRARY, [LIBRARY, PLATFORM], third_party=False),
    Part("lib-webapi/", [LIBRARY, PLATFORM], ["lib-webapi/"], POSIX, third_party=False),
    Part(PLATFORM, [PLATFORM], system=POSIX, third_party=False),
    Part(LINUX, [LINUX, PLATFORM], system=ANY, third_party=False),
    Part("platform/linux/", [LINUX, PLATFORM, "include/velamailserver/log_exception.h"],
         ["platform/linux/"], ANY),
    Part(HANDLERS, [HANDLERS, LIBRARY, PLATFORM], third_party=False),
    Part("handlers/", [HANDLERS, LIBRARY, PLATFORM], ["handlers/"]),
    Part("apps/quillonctl/", PUBLIC, ["apps/quillonctl/"], ANY),
    # Only the workers run the library; front and supervisor have a small part of the platform.
    Part("apps/quillon-webapid/worker.cc", WORKER, ["apps/quillon-webapid/"], ANY),
    Part("apps/quillon-webapid/worker_main.cc", WORKER, ["apps/quillon-webapid/"], ANY),
    Part("apps/quillon-webapid/", FRONT, ["apps/quillon-webapid/"], ANY),
    # A stranger's program: it has what is installed.
    Part("examples/", [LIBRARY, PLATFORM, LINUX]),
    Part("bench/", PUBLIC, ["bench/", "tests/"]),
    # The stand-in platform has no other one below it, and the library is tested on it.
    Part("tests/recording_platform/", [LIBRARY, PLATFORM], ["tests/"]),
    Part("tests/lib-webapi/", [LIBRARY, PLATFORM], ["tests/", "lib-webapi/"]),
    Part("tests/system/", PUBLIC, ["tests/"]),
    Part("tests/", PUBLIC, ["tests/", *PRODUCT]),
]

# Others' headers, and the only places of the product that may know them. Tests and benchmarks
# choose for themselves.
THIRD_PARTY = {
    "CLI/": ["apps/quillonctl/", "apps/quillon-webapid/main.cc"],
    "curl/": ["platform/linux/cred/"],
    "fmt/": ["platform/linux/", "apps/quillonctl/"],
    "gnutls/": ["apps/quillon-webapid/certificate.", "apps/quillon-webapid/server_certificate."],
    "gsasl.h": ["platform/linux/accounts/", "platform/linux/cred/", "platform/linux/utils/"],
    "hiredis/": ["platform/linux/backend/"],
    "libpq-fe.h": ["platform/linux/quota/postgresql_dialect."],
    "microhttpd.h": ["apps/quillon-webapid/http_front."],
    "openssl/": ["platform/linux/cred/", "platform/linux/utils/"],
    "seccomp.h": ["apps/quillon-webapid/confinement."],
    "soci/postgresql/": ["platform/linux/quota/postgresql_dialect."],
    "soci/": ["platform/linux/quota/", "platform/linux/maildir/usage_cache.",
              "platform/linux/utils/"],
    "toml++/": ["platform/linux/conf/"],
}
NOT_PRODUCT = ("bench/", "tests/")

# Headers of the C library and the kernel that the product uses. A header that is in no list has no
# place yet.
SYSTEM_FOLDERS = ("sys/", "linux/", "arpa/", "netinet/")
SYSTEM = {
    "dirent.h", "dlfcn.h", "fcntl.h", "grp.h", "netdb.h", "nss.h", "poll.h", "pthread.h", "pwd.h",
    "spawn.h", "stdlib.h", "string.h", "strings.h", "syslog.h", "termios.h", "unistd.h"}


def begins(path, beginnings):
    return path.startswith(tuple(beginnings))


def read_sources(root):
    """The texts of all sources by path, of every folder that is not hidden nor made by a build."""
    root = pathlib.Path(root)
    folders = [folder for folder in sorted(root.iterdir())
               if folder.is_dir() and folder.name != "build" and not folder.name.startswith(".")]
    return {str(path.relative_to(root)): path.read_text(encoding="utf-8")
            for folder in folders for path in sorted(folder.rglob("*")) if path.suffix in SUFFIXES}


class House:
    """The walls between sources, given as texts by path."""

    def __init__(self, sources):
        self.sources = sources
        self.public = {path.removeprefix(folder): path
                       for folder in PUBLIC for path in sources if path.startswith(folder)}
        self.between_folders = {}  # of platform/linux: (from, to): the include that shows it

    def problems(self):
        found = []
        for path, text in self.sources.items():
            part = next((part for part in PARTS if path.startswith(part.folder)), None)
            if part is None:
                found.append(f"{path}: no wall is drawn around this folder")
                continue
            text = COMMENT.sub("", text)
            found += [f"{path}: {problem}" for problem in self.of_file(path, text)]
            for match in INCLUDE.finditer(text):
                problem = self.of_include(path, part, match["what"].strip())
                if problem:
                    found.append(f"{path}: {match['what'].strip()}: {problem}")
        return found + self.circles()

    def of_file(self, path, text):
        if OTHER_WAYS.search(text):
            yield "includes in another way than by #include"
        if path.endswith(".h") and not text.lstrip().startswith("#pragma once"):
            yield "does not begin with #pragma once"
        own = path.removesuffix(".cc") + ".h"
        if path.endswith(".cc") and own in self.sources and not own.startswith("tests/"):
            first = INCLUDE.search(text)
            named = NAMED.match(first["what"]) if first else None
            if not named or not named["private"] or not own.endswith("/" + named["private"]):
                yield f"does not include {own} first, so nothing shows that it compiles on its own"

    def of_include(self, path, part, what):
        named = NAMED.match(what)
        if not named:
            return "is no name of a header"
        if named["private"]:
            return self.of_private(path, part, named["private"])
        name = named["public"]
        if name in self.public:
            if begins(self.public[name], part.public):
                return None
            return f"{part.folder} may not know {self.public[name]}"
        return self.of_other(path, part, name)

    def of_private(self, path, part, name):
        """A private header is named by its path in its part's folder; a test's, also by itself."""
        candidates = [folder + name for folder in part.private]
        if part.folder.startswith("tests/"):
            candidates.append(str(pathlib.PurePosixPath(path).parent / name))
        target = next((target for target in candidates if target in self.sources), None)
        if target is None:
            return f"is no private header that {part.folder} may know"
        if begins(target, PUBLIC):
            return "is public: it belongs in <>"
        linux = "platform/linux/"
        if path.startswith(linux) and target.startswith(linux):
            ends = tuple(file.removeprefix(linux).split("/")[0] for file in (path, target))
            if ends[0] != ends[1]:
                self.between_folders.setdefault(ends, f"{path} includes {target}")
        return None

    def of_other(self, path, part, name):
        if begins(path, NOT_PRODUCT) or re.fullmatch(r"\w+|json/\w+\.h", name):
            return None
        package = next((package for package in THIRD_PARTY if name.startswith(package)), None)
        if package is not None:
            if part.third_party and begins(path, THIRD_PARTY[package]):
                return None
            return f"{package} may not be known here"
        if name in SYSTEM or name.startswith(SYSTEM_FOLDERS):
            known = begins(name, part.system)
            return None if known else f"{part.folder} may not know this header of the system"
        return "is in no list of headers"

    def circles(self):
        """Folders of platform/linux that include each other, whichever way round."""
        reached = set(self.between_folders)
        while True:
            further = {(a, d) for a, b in reached for c, d in reached if b == c} - reached
            if not further:
                break
            reached |= further
        return [f"platform/linux: {a} and {b} need each other: {include}"
                for (a, b), include in sorted(self.between_folders.items()) if (b, a) in reached]


def find_problems(sources):
    return House(sources).problems()
