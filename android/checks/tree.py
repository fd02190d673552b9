"""Checks that android/ and the build files agree with src/."""
import re

from .readers import (Blueprint, Named, Policy, cpp_calls, cpp_sources, included_libraries,
                      init_sections, shaped_lines)
from .report import compare, complain

BUILD = "android/Android.bp"
LIBRARY = "src/Android.bp"
TOOL = "tools/quarnctl/Android.bp"
COMMON = "tools/common/Android.bp"
SERVICE = "android/quarn.rc"
NODES = "android/ueventd.quarn.rc"
DEFAULTS = "android/quarn_default.cfg"

# The settings of a new phone.
DEFAULT_SETTINGS = {"transfer_type", "file_size", "recycle_size", "recycle_ee", "recycle_keep_ee_size",
                    "flush_interval", "log_mode"}
# The headers of src/platform that declare functions of Android. The others are of the closed libraries.
ANDROID_HEADERS = {"quarn_log.h", "system_properties.h"}
# The SELinux rights that a call or a flag of a call needs, by class. To read and write an open file needs no
# more rights than to open it. fsync, syncfs, lseek and fcntl need no rights.
RIGHTS = {name: rights for names, rights in {
    "open openat": {"dir": "search", "file": "open", "chr_file": "open"},
    "O_RDONLY": {"file": "read", "chr_file": "read"},
    "O_WRONLY": {"file": "write", "chr_file": "write"},
    "O_RDWR": {"file": "read write", "chr_file": "read write"},
    "O_APPEND": {"file": "append"},
    "O_CREAT": {"dir": "write add_name", "file": "create"},
    "O_DIRECTORY opendir scandir": {"dir": "open read"},
    "mkdir mkdirat": {"dir": "create write add_name"},
    "rmdir": {"dir": "rmdir write remove_name"},
    "rename renameat": {"dir": "rename write add_name remove_name", "file": "rename unlink"},
    "unlink unlinkat remove": {"dir": "write remove_name", "file": "unlink"},
    "link linkat": {"dir": "write add_name", "file": "link"},
    "stat lstat fstat fstatat": {"file": "getattr"},
    "S_IFDIR S_ISDIR": {"dir": "getattr"},
    "chmod fchmod fchown futimens": {"file": "setattr"},
    "truncate ftruncate": {"file": "write"},
    "flock F_SETLK": {"file": "lock"},
    "mmap": {"file": "map"},
    "readlink": {"dir": "search", "lnk_file": "read"},
    "socket": {"netlink_kobject_uevent_socket": "create"},
    "bind": {"netlink_kobject_uevent_socket": "bind"},
    "setsockopt": {"netlink_kobject_uevent_socket": "setopt"},
    "getsockopt": {"netlink_kobject_uevent_socket": "getopt"},
    "getsockname": {"netlink_kobject_uevent_socket": "getattr"},
    "recv recvfrom recvmsg": {"netlink_kobject_uevent_socket": "read"},
}.items() for name in names.split()}
# A type of the policy, its classes, the sources that access it, and calls there that access other types only.
USES = [
    ("quarn_data_file", {"dir", "file"}, "**/*", set()),
    # The copy command reads only the daemon's own folder. Opening a folder with O_PATH needs no right.
    ("quarn_copy_target", {"dir", "file"}, "control/copy_log_file.cpp",
     {"O_RDONLY", "O_DIRECTORY", "opendir", "scandir"}),
    ("quarn_filter_file", {"dir", "file"}, "modem/log_filter_manager.cpp", set()),
    ("quarn_state_device", {"chr_file"}, "modem/quarn_event_detect.cpp", set()),
    ("mnt_vendor_file", {"dir", "lnk_file"}, "storage/custom_header.cpp", set()),
    ("self", {"netlink_kobject_uevent_socket"}, "modem/quarn_event_detect.cpp", set()),
]
# The rules that no call in src needs.
OTHER_RULES = {
    # The folders above the daemon's folder.
    ("quarn", "vendor_data_file", "dir"): {"search"},
    # It is not known which calls the closed libraries make.
    ("quarn", "quarn_ipc_device", "chr_file"): {"rw_file_perms"},
    ("quarn", "quarn_log_device", "chr_file"): {"rw_file_perms"},
    # The clients.
    ("quarn_client", "quarn", "unix_stream_socket"): {"connectto"},
    ("quarn_client", "quarnctl_exec", "file"):
        {"getattr", "open", "read", "execute", "execute_no_trans", "map"},
}
# The attributes of a type, by the ending of its name.
TYPE_ATTRIBUTES = {
    "_exec": {"exec_type", "vendor_file_type", "file_type"},
    "_data_file": {"file_type", "data_file_type"},
    "_device": {"dev_type"},
    "quarn": {"domain"},
}


def check_modules(root):
    """Checks the build files. Returns the paths of the installed programs and of the files in /vendor/etc."""
    build, library, tool, common = (Blueprint(root, name) for name in (BUILD, LIBRARY, TOOL, COMMON))
    sources = cpp_sources(root / "src")
    present = {str(f.relative_to(root / "src")) for f in sources if f.suffix == ".cpp"}
    closed = {h.stem for h in (root / "src/platform").glob("*.h") if h.name not in ANDROID_HEADERS}
    shipped = {f.name for f in (root / "android").iterdir() if f.suffix in (".rc", ".cfg")}
    to_etc = shipped - {"quarn.rc"}
    tool_sources = sorted((root / "tools/quarnctl").glob("*.cpp"))
    common_sources = {f.name for f in (root / "tools/common").glob("*.cpp")}
    public = {"//visibility:public"}
    wanted = [
        (library, "quarn_main", "srcs", {"core/main.cpp"}),
        (library, "quarn_main", "visibility", public),
        (library, "libquarn_daemon", "kind", {"cc_library_static"}),
        (library, "libquarn_daemon", "srcs", present - {"core/main.cpp"}),
        (library, "libquarn_daemon", "defaults", {"quarn_defaults"}),
        (library, "libquarn_daemon", "export_include_dirs", {"."}),
        (library, "libquarn_daemon", "visibility", public),
        (library, "quarn_headers", "kind", {"cc_library_headers"}),
        (library, "quarn_headers", "export_include_dirs", {"."}),
        (library, "quarn_headers", "vendor", {"true"}),
        (library, "quarn_headers", "visibility", public),
        (tool, "quarnctl_source", "srcs", {f.name for f in tool_sources}),
        (tool, "quarnctl_source", "visibility", public),
        (library, "quarn_log_names", "srcs", {"storage/log_names.cpp"}),
        (library, "quarn_log_names", "visibility", public),
        (common, "libquarn_tools_common", "kind", {"cc_library_static"}),
        (common, "libquarn_tools_common", "srcs", common_sources),
        (common, "libquarn_tools_common", "export_include_dirs", {"."}),
        (common, "libquarn_tools_common", "vendor", {"true"}),
        (common, "libquarn_tools_common", "cpp_std", {"c++20"}),
        (common, "libquarn_tools_common", "visibility", public),
        (build, "quarn_platform_libraries", "shared_libs", {"lib" + name for name in closed}),
        (build, "quarn_defaults", "shared_libs", included_libraries(sources)),
        (build, "quarn_defaults", "cpp_std", {"c++20"}),
        (build, "quarn_defaults", "cppflags", {"-fexceptions"}),
        (build, "quarn_defaults", "vendor", {"true"}),
        (build, "quarn_defaults", "defaults_visibility", public),
        (build, "quarn", "kind", {"cc_binary"}),
        (build, "quarn", "defaults", {"quarn_defaults", "quarn_platform_libraries"}),
        (build, "quarn", "srcs", {":quarn_main"}),
        (build, "quarn", "static_libs", {"libquarn_daemon"}),
        (build, "quarn", "init_rc", {"quarn.rc"}),
        (build, "quarn", "required", to_etc),
        (build, "quarnctl", "kind", {"cc_binary"}),
        (build, "quarnctl", "srcs", {":quarnctl_source", ":quarn_log_names"}),
        (build, "quarnctl", "static_libs", {"libquarn_tools_common"}),
        (build, "quarnctl", "shared_libs", included_libraries(tool_sources)),
        (build, "quarnctl", "header_libs", {"quarn_headers"}),
        (build, "quarnctl", "cpp_std", {"c++20"}),
        (build, "quarnctl", "vendor", {"true"}),
    ]
    for name in sorted(to_etc):
        wanted += [(build, name, "kind", {"prebuilt_etc"}), (build, name, "src", {name}),
                   (build, name, "vendor", {"true"})]
    for blueprint, module, key, values in wanted:
        compare(values, "src or android", blueprint.get(module, key), blueprint.file,
                f"{key} of {module}:")
    return ({"/vendor/bin/" + name for name in build.of_kind("cc_binary")},
            {"/vendor/etc/" + name for name in build.of_kind("prebuilt_etc")})


def check_folders(src, made, account):
    """Checks the folders that init creates. `made` has the mode and the owner of each."""
    data = {p for p in src.paths if p.startswith("/data/")}
    for folder in sorted(made.keys() - data):
        complain(SERVICE, f"folder {folder} is not the daemon's own")
    for path in sorted(data):
        if not any((path + "/").startswith(folder + "/") for folder in made.keys() & data):
            complain(SERVICE, f"folder of path {path} of src is missing")
    for folder, words in made.items():
        if words != ["0770", *account]:
            complain(SERVICE, f"folder {folder} is not the service's alone: {' '.join(words)}")


def check_service(root, src, programs):
    """Checks the service. Returns its user and group."""
    sections = init_sections(root, SERVICE)
    services = {line: words for line, words in sections.items() if line.startswith("service")}
    compare({"service " + p.split("/")[-1] + " " + p for p in programs if p.endswith("/quarn")},
            BUILD, set(services), SERVICE, "line")
    options = {w[0]: w[1:] for words in services.values() for w in words}
    compare({"class", "user", "group", "capabilities"}, "android/checks/tree.py", set(options), SERVICE,
            "option")
    # A service of another class may start before /data is mounted, or never.
    for option, wanted in (("class", ["late_start"]), ("capabilities", [])):
        if options.get(option, wanted) != wanted:
            complain(SERVICE, f"{option} is {' '.join(options[option])}")
    account = options.get("user", []) + options.get("group", [])
    made = {w[1]: w[2:] for w in sections.get("on post-fs-data", []) if w[0] == "mkdir"}
    check_folders(src, made, account)
    asked = {n for n in src.properties if n.endswith(".restart")}
    for name in sorted(asked):
        if sections.get(f"on property:{name}=1") != [["restart", "quarn"]]:
            complain(SERVICE, f"property {name} of src does not restart the service")
    triggers = {"on post-fs-data", *(f"on property:{name}=1" for name in asked)}
    compare(triggers, "src", set(sections) - set(services), SERVICE, "line")
    return account


def check_nodes(root, src, policy, account):
    nodes = {m[1]: m.groups()[1:] for m in shaped_lines(root, NODES, r"(/dev/\S+) ([0-7]{4}) (\w+) (\w+)")}
    compare(src.devices, "src", set(nodes), NODES, "device")
    for node, (mode, *owner) in nodes.items():
        rights = policy.allowed.get(("quarn", policy.label(node), "chr_file"), set())
        needed = 0o660 if "rw_file_perms" in rights else 0o440
        if int(mode, 8) != needed:
            complain(NODES, f"mode {mode} of {node} is not {needed:04o}")
        if owner != account:
            complain(NODES, f"owner {' '.join(owner)} of {node} is not the service's")


def check_labels(policy, known, elsewhere):
    """Checks the labels of paths.

    `known` are the paths that the daemon or the build creates, `elsewhere` the paths that the platform or a
    device labels.
    """
    for path in sorted(known):
        if not policy.label(path):
            complain(policy.CONTEXTS, f"path {path} is missing")
    for pattern, label in policy.labels:
        if not any(re.fullmatch(pattern, path) for path in known):
            complain(policy.CONTEXTS, f"path {pattern} is not in src, or its label is not ours")
        if not any(target == label for _, target, _ in policy.allowed) and \
                label.removesuffix("_exec") not in policy.macros.get("init_daemon_domain", set()):
            complain(policy.FILE, f"no rule allows anything with type {label}")
    own = {name for name in policy.types if name != "quarn"}
    compare({label for _, label in policy.labels}, policy.CONTEXTS, own, policy.FILE, "type")
    compare(elsewhere, "src", {w for w in policy.named("allow", "domain") if w.startswith("/")},
            policy.FILE, "path")


def needed_rights(root):
    """Returns a dictionary from (domain, type, class) to the rights that the calls in src need."""
    needed = dict(OTHER_RULES)
    for target, classes, pattern, others in USES:
        calls = {call for file in (root / "src").glob(pattern) if file.suffix in (".cpp", ".h")
                 for call in cpp_calls(file)} - others
        for kind in classes:
            rights = " ".join(RIGHTS[call].get(kind, "") for call in calls & RIGHTS.keys())
            needed["quarn", target, kind] = set(rights.split())
    return needed


def check_rights(root, policy):
    """Checks that the policy allows the needed rights and no others."""
    needed = needed_rights(root)
    for rule in sorted(needed.keys() | policy.allowed.keys()):
        domain, target, kind = rule
        compare(needed.get(rule, set()), "src", policy.allowed.get(rule, set()), policy.FILE,
                f"right of {domain} on {target}:{kind}:")
    for name, attributes in sorted(policy.types.items()):
        wanted = next((a for end, a in TYPE_ATTRIBUTES.items() if name.endswith(end)), set())
        compare(wanted, "android/checks/tree.py", attributes, policy.FILE, f"type {name} as")
    # The build may read a device's own policy before quarn.te, but not before the files "attributes".
    used = {name for rule in policy.allowed for name in rule[:2] if name.startswith("quarn")}
    compare(used - policy.types.keys(), policy.FILE, policy.attributes, policy.ATTRIBUTES, "attribute")


def check_properties(root, src, policy):
    compare({"@" + s for s in src.sockets}, "src",
            {w for w in policy.named("allow") if w.startswith("@")}, policy.FILE, "socket")
    given = {w for w in policy.named("domain") if not w.startswith("/")}
    compare(src.properties, "src", policy.named("set_prop", "get_prop") | given, policy.FILE, "property")
    compare(policy.named("set_prop"), policy.FILE, set(policy.properties), policy.PROPERTIES, "property")
    types = {kind for kind, _ in policy.properties.values()}
    compare({"quarn, " + kind for kind in types}, policy.PROPERTIES,
            policy.macros.get("set_prop", set()), policy.FILE, "set_prop of")
    compare(types, policy.PROPERTIES, policy.macros.get("vendor_internal_prop", set()), policy.FILE,
            "property type")
    code = " ".join(f.read_text() for f in cpp_sources(root / "src"))
    for name, (_, values) in policy.properties.items():
        set_values = re.findall(rf'quarn_property_set\("{re.escape(name)}", "(\w+)"\)', code)
        compare(set(set_values), "src", values, policy.PROPERTIES, f"{name} with the value")


def check_defaults(root, src):
    settings = {m[1] for m in shaped_lines(root, DEFAULTS, r"(\w+) \d+")}
    compare(DEFAULT_SETTINGS, "android/checks/tree.py", settings, DEFAULTS, "setting")
    for name in sorted(settings - src.texts):
        complain(DEFAULTS, f"setting {name} is not in src")


def check_tree(root):
    src = Named(cpp_sources(root / "src"))
    policy = Policy(root)
    programs, etc = check_modules(root)
    account = check_service(root, src, programs)
    check_nodes(root, src, policy, account)
    elsewhere = {p for p in src.paths if not p.startswith("/data/")}
    check_labels(policy, src.paths - elsewhere | src.devices | programs, elsewhere)
    check_rights(root, policy)
    check_properties(root, src, policy)
    check_defaults(root, src)
    for path in sorted(p for p in src.paths if p.startswith("/vendor/etc/") and p not in etc):
        complain(BUILD, f"path {path} of src is missing")
