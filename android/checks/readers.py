"""Parsers for C++ sources, build files and the policy, limited to what the checks need."""
import re

from .report import complain

# The library behind an include.
LIBRARIES = {"android-base/": "libbase", "cutils/": "libcutils", "android/log.h": "liblog",
             "snappy": "libsnappy"}
# File names that look like the name of a property.
FILE_NAME = re.compile(r".*\.(muxz|tmp|cfg|socket)(\.\w+)?")

CPP_TOKEN = re.compile(
    r"""//[^\n]*|/\*.*?\*/            # a comment
      |'(?:\\.[^'\n]*|[^'\\\n])'      # a character
      |R"(?P<end>[^\s()\\]*)\((?P<raw>.*?)\)(?P=end)"
      |"(?P<text>(?:\\.|[^"\\\n])*)"
      |\w+|\S""", re.S | re.X)


def cpp_sources(folder):
    return sorted(f for f in folder.rglob("*") if f.suffix in (".cpp", ".h"))


def cpp_tokens(file):
    """Returns the string literals of a C++ source, and its other tokens.

    Include lines and comments are ignored. Adjacent literals are joined.
    """
    literals, others, follows = [], [], False
    text = re.sub(r"^\s*#\s*include[^\n]*", "", file.read_text(), flags=re.M)
    for token in CPP_TOKEN.finditer(text):
        if token.group().startswith(("//", "/*")):
            continue
        literal = token.group("text") if token.group("raw") is None else token.group("raw")
        if literal is None:
            others.append(token.group())
        elif follows:
            literals[-1] += literal
        else:
            literals.append(literal)
        follows = literal is not None
    return literals, others


def cpp_calls(file):
    """Returns the names of the functions that a C++ source calls, and of its constants in capitals."""
    tokens = cpp_tokens(file)[1]
    return {token for token, after in zip(tokens, tokens[1:]) if after == "(" or token.isupper()}


def included_libraries(files):
    """Returns the libraries whose headers these sources include."""
    included = [name for file in files
                for name in re.findall(r"^\s*#\s*include <([^>]*)>", file.read_text(), re.M)]
    return {library for prefix, library in LIBRARIES.items()
            if any(name.startswith(prefix) for name in included)}


class Named:
    """The names of a phone's files, devices, sockets and properties in C++ sources.

    A name with a "%" is kept as it is, so it matches no real name.
    """

    def __init__(self, files):
        texts = [text for file in files for text in cpp_tokens(file)[0]]
        # A path may be a part of a longer text.
        path = re.compile(r"(?<![^\s=:,'\"(])/\w[\w.%-]*(?:/[\w.%-]+)*")
        paths = {p for t in texts for p in path.findall(t)}
        self.sockets = {p for p in paths if p.endswith(".socket")}
        # Sources contain the path of a device that they open, or only the name that the kernel reports.
        bare = {"/dev/" + name for t in texts for name in re.findall(r"\bwwan\w+", t)}
        self.devices = {p for p in paths - self.sockets if p.startswith("/dev/")} | bare
        self.paths = paths - self.sockets - self.devices
        self.properties = {t for t in texts if re.fullmatch(r"[A-Za-z]\w*(\.[\w%@:-]+)+", t)
                           and not FILE_NAME.fullmatch(t)}
        self.texts = set(texts)


def lines(file):
    """Returns the words of each line that is not empty, without comments."""
    stripped = (line.split("#")[0].split() for line in file.read_text().splitlines())
    return [words for words in stripped if words]


def shaped_lines(root, name, *shapes):
    """Returns the match of each line with one of the shapes, and complains about lines without a match.

    Comments and repeated spaces are removed before.
    """
    matches = []
    for words in lines(root / name):
        line = " ".join(words)
        match = next((m for shape in shapes if (m := re.fullmatch(shape, line))), None)
        if match:
            matches.append(match)
        else:
            complain(name, f"line is not understood: {line}")
    return matches


def init_sections(root, name):
    """Returns a dictionary from the first line of each section of an init file to its lines, as words."""
    sections, section = {}, []
    for words in lines(root / name):
        if words[0] in ("on", "service", "import"):
            section = sections.setdefault(" ".join(words), [])
        else:
            section.append(words)
    return sections


class Blueprint:
    """The modules of a build file. The value of a property is a set of its strings, or of its single word."""

    def __init__(self, root, name):
        self.file = name
        self.modules = {}
        found = re.findall(r'//[^\n]*|"[^"]*"|[\w.]+|[][{}:,]', (root / name).read_text())
        self.tokens = [t for t in found if not t.startswith("//") and t not in ":,"]
        try:
            while self.tokens:
                kind, properties = self.tokens.pop(0), self.value()
                self.modules["".join(properties.get("name", ""))] = {**properties, "kind": {kind}}
        except (AttributeError, IndexError, TypeError):
            complain(name, "is not understood: a bracket, a name or a value is missing")

    def value(self):
        token = self.tokens.pop(0)
        if token not in "[{":
            return {token.strip('"')}
        properties, items = {}, set()
        while (key := self.tokens.pop(0)) not in "]}":
            if token == "{":
                properties[key] = self.value()
            else:
                items.add(key.strip('"'))
        return properties if token == "{" else items

    def get(self, module, key):
        value = self.modules.get(module, {}).get(key, set())
        return value if isinstance(value, set) else set(value)

    def of_kind(self, kind):
        return {name for name, properties in self.modules.items() if properties["kind"] == {kind}}


class Policy:
    """The content of android/sepolicy."""
    FILE = "android/sepolicy/quarn.te"
    ATTRIBUTES = "android/sepolicy/attributes"
    CONTEXTS = "android/sepolicy/file_contexts"
    PROPERTIES = "android/sepolicy/property_contexts"

    def __init__(self, root):
        self.types = {}  # type: its attributes
        self.allowed = {}  # (domain, type, class): rights
        self.macros = {}  # name of the macro: arguments
        for match in shaped_lines(
                root, self.FILE, r"type (?P<type>\w+), (?P<attributes>\w+(?:, \w+)*);",
                r"allow (?P<domain>\w+) (?P<target>\w+):(?P<kind>\w+) (?P<rights>\w+|\{[ \w]+\});",
                r"neverallow [^:;]+:[^;]+;", r"(?P<macro>\w+)\((?P<arguments>[\w, ]+)\)"):
            found = match.groupdict()
            if "type" in found:
                self.types[found["type"]] = set(found["attributes"].split(", "))
            elif "domain" in found:
                key = (found["domain"], found["target"], found["kind"])
                self.allowed.setdefault(key, set()).update(found["rights"].strip("{}").split())
            elif "macro" in found:
                self.macros.setdefault(found["macro"], set()).add(found["arguments"])
        self.attributes = {m[1] for m in shaped_lines(root, self.ATTRIBUTES, r"attribute (\w+);")}
        # (pattern, type)
        self.labels = [(m[1], m[2]) for m in
                       shaped_lines(root, self.CONTEXTS, r"(/\S+) u:object_r:(\w+):s0")]
        # name: (type, values)
        self.properties = {m[1]: (m[2], set(m[3].split())) for m in shaped_lines(
            root, self.PROPERTIES, r"(\S+) u:object_r:(\w+):s0 exact enum ([\w ]+)")}
        # Names that a rule cannot contain are in a comment after the rule, or after "# domain:".
        text = (root / self.FILE).read_text()
        behind = re.findall(r"^(\w+)\b[^#\n]*#([^\n]*)", text, re.M)
        self.comments = [(rule, word) for rule, words in behind for word in words.split()]
        self.comments += [("domain", w) for w in re.findall(r"^# +# domain: *(\S+)", text, re.M)]

    def named(self, *rules):
        return {word for rule, word in self.comments if rule in rules}

    def label(self, path):
        return next((label for pattern, label in self.labels if re.fullmatch(pattern, path)), None)
