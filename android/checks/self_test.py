"""Changes copies of the files and checks that each kind of difference is reported."""
import pathlib
import shutil
import tempfile

from . import report
from .symbols import check_symbols
from .tree import check_tree

# A file, a text in it, the text that replaces it, and a text that the complaint must contain.
MUTATIONS = [
    # The names of the phone's files, devices, sockets and properties in the sources.
    ("src/core/quarn.cpp", '"/data/vendor/radio/quarn/"', '"/data/vendor/other/"', "/data/vendor/other"),
    ("src/core/quarn.cpp", '"/data/vendor/radio/quarn/"', '"/data/vendor/%s/"', "/data/vendor/%s"),
    ("src/core/quarn.cpp", '"/data/vendor/radio/quarn/"', '"/data" "/other/"', "/data/other"),
    ("src/core/main.cpp", "vendor.quarn.qrx.restart", "vendor.quarn.new", "vendor.quarn.new"),
    ("src/storage/custom_header.cpp", "ro.boot.cdt_hwid", "gsm.hwid", "gsm.hwid"),
    ("src/core/main.cpp", '.restart", "0"', '.restart", "2"', "value 2"),
    ("src/core/main.cpp", "/dev/wwanD0MIPC0", "/dev/wwanD0NEW", "/dev/wwanD0NEW"),
    ("src/core/main.cpp", '"/dev/wwanD0MIPC0"', 'R"(/dev/raw)"', "/dev/raw"),
    ("src/core/main.cpp", '"/dev/wwanD0MIPC0"', '"/dev/wwan%d"', "/dev/wwan%d"),
    ("src/core/main.cpp", '"start init quarn"', '"start, see /proc/version"', "/proc/version"),
    ("src/control/protocol.h", "/dev/quarn_c", "/dev/quarn_d", "@/dev/quarn_dallback"),
    ("src/storage/custom_header.cpp", "/mnt/vendor/", "/mnt/product/", "path /mnt/product"),
    ("src/storage/log_file_recycler.cpp", "rmdir(", "other(", "quarn_data_file:dir: rmdir is not in src"),
    ("src/modem/quarn_event_detect.cpp", "setsockopt(", "getsockopt(", "getopt of src is missing"),
    # The build files.
    ("src/Android.bp", '"core/quarn.cpp",', "", "core/quarn.cpp"),
    ("src/Android.bp", '"core/quarn.cpp",', '"core/quarn.cpp", "core/gone.cpp",', "core/gone.cpp"),
    ("src/Android.bp", '"quarn_defaults"', "", "quarn_defaults"),
    ("tools/quarnctl/Android.bp", "quarnctl.cpp", "other.cpp", "quarnctl.cpp"),
    ("tools/quarnctl/Android.bp", '        "watch.cpp",\n', "", "watch.cpp"),
    ("android/Android.bp", 'header_libs: ["quarn_headers"],', "", "quarn_headers"),
    ("android/Android.bp", 'src: "quarn_default.cfg"', "", "quarn_default.cfg"),
    ("android/Android.bp", 'static_libs: ["libquarn_daemon"],', "", "libquarn_daemon"),
    ("android/Android.bp", '        "ueventd.quarn.rc",\n', "", "ueventd.quarn.rc"),
    ("android/Android.bp", '        "libmipc",\n', "", "libmipc"),
    ("android/Android.bp", '        "libsnappy",\n', "", "libsnappy"),
    ("android/Android.bp", '        "quarn_platform_libraries",\n', "", "quarn_platform_libraries"),
    ("android/Android.bp", 'init_rc: ["quarn.rc"],', "", "quarn.rc"),
    ("android/Android.bp", "    vendor: true,\n    cpp_std", "    cpp_std", "vendor of quarn"),
    ("android/Android.bp", 'src: "quarn_default.cfg",\n}', "", "is not understood"),
    # The service and the nodes.
    ("android/quarn.rc", "mkdir /data/vendor/radio/quarn ", "mkdir /data/vendor/radio/q ", "radio/q "),
    ("android/quarn.rc", "    mkdir", "    mkdir /data/vendor/radio 0771 radio radio\n    mkdir", "own"),
    ("android/quarn.rc", "0770 radio", "0770 root", "0770 root"),
    ("android/quarn.rc", "/vendor/bin/quarn", "/vendor/bin/quarnd", "/vendor/bin/quarnd"),
    ("android/quarn.rc", "restart=1", "start=1", "vendor.quarn.qrx.start"),
    ("android/quarn.rc", "restart quarn", "restart other", "does not restart"),
    ("android/quarn.rc", "    user radio\n", "", "option user"),
    ("android/quarn.rc", "    group radio\n", "    group system\n", "owner radio radio of /dev"),
    ("android/quarn.rc", "    capabilities\n", "    capabilities KILL\n", "capabilities"),
    ("android/quarn.rc", "class late_start", "class main", "class"),
    ("android/quarn.rc", "on post-fs-data", "on boot", "on post-fs-data"),
    ("android/quarn_default.cfg", "log_mode 1\n", "", "log_mode"),
    ("android/quarn_default.cfg", "log_mode", "log_made", "log_made"),
    ("android/ueventd.quarn.rc", "/dev/wwan_fsm_state", "/dev/wwan_fsm_sta", "/dev/wwan_fsm_sta"),
    ("android/ueventd.quarn.rc", "MIPC0     0660 radio radio", "MIPC0     0660 root radio", "root radio"),
    ("android/ueventd.quarn.rc", "0440", "0000", "mode 0000"),
    ("android/ueventd.quarn.rc", "MDLog     0660", "MDLog     0440", "mode 0440"),
    ("android/ueventd.quarn.rc", "0440", "0444", "mode 0444"),
    # The policy.
    ("android/sepolicy/attributes", "attribute quarn_client;", "", "quarn_client"),
    ("android/sepolicy/attributes", "quarn_filter_file;", "quarn_other_file;", "quarn_other_file"),
    ("android/sepolicy/quarn.te", "type quarn,", "attribute quarn_client;\ntype quarn,", "quarn_client"),
    ("android/sepolicy/file_contexts", "/vendor/bin/quarn ", "/vendor/bin/qqq ", "/vendor/bin/qqq"),
    ("android/sepolicy/file_contexts", "quarn_ipc_device", "quarn_device", "quarn_device"),
    ("android/sepolicy/file_contexts", "/dev/wwanD0MDLog", "/mnt/vendor/modem_img", "label is not ours"),
    ("android/sepolicy/property_contexts", "vendor.quarn.qrx", "vendor.quarn", "vendor.quarn.restart"),
    ("android/sepolicy/property_contexts", "vendor_quarn_prop", "vendor_other_prop", "vendor_other_prop"),
    ("android/sepolicy/property_contexts", "enum 0 1", "enum 0", "value 1"),
    ("android/sepolicy/quarn.te", "@/dev/quarn_server.socket", "", "@/dev/quarn_server.socket"),
    ("android/sepolicy/quarn.te", "# domain: ro.boot", "# ro.boot", "ro.boot.cdt_hwid"),
    ("android/sepolicy/quarn.te", "init_daemon_domain(quarn)", "", "quarn_exec"),
    ("android/sepolicy/quarn.te", "set_prop(quarn", "#", "vendor.quarn.qrx.restart"),
    ("android/sepolicy/quarn.te", "allow quarn quarn_ipc_device", "#", "quarn_ipc_device"),
    ("android/sepolicy/quarn.te", "allow quarn quarn_log_device", "#", "quarn_log_device"),
    ("android/sepolicy/quarn.te", "allow quarn quarn_state_device", "#", "quarn_state_device"),
    ("android/sepolicy/quarn.te", "allow quarn quarn_data_file:file", "#", "quarn_data_file:file"),
    ("android/sepolicy/quarn.te", "allow quarn_client quarnctl_exec", "#", "quarnctl_exec"),
    ("android/sepolicy/quarn.te", "append rename", "append", "quarn_data_file:file: rename of src"),
    ("android/sepolicy/quarn.te", "append rename", "append link rename", "quarn_data_file:file: link is not"),
    ("android/sepolicy/quarn.te", "allow quarn vendor_data_file:dir search;", "", "vendor_data_file:dir"),
    ("android/sepolicy/quarn.te", "_file:lnk_file read;", "_file:lnk_file { read getattr };", "getattr"),
    ("android/sepolicy/quarn.te", "type quarn_data_file, file_type,", "type quarn_data_file,", "file_type"),
    ("android/sepolicy/quarn.te", "vendor_internal_prop(", "vendor_other_prop(", "property type"),
    ("android/sepolicy/quarn.te", "create setopt bind", "create bind", "setopt of src"),
]

# Functions that only builds with _FORTIFY_SOURCE and with checked descriptors call.
HARDENED = {
    "__FD_CLR_chk", "__open_2", "__recvfrom_chk", "__strlen_chk", "__umask_chk", "__vsnprintf_chk",
    "__write_chk", "android_fdsan_close_with_tag", "android_fdsan_create_owner_tag",
    "android_fdsan_exchange_owner_tag", "vsnprintf",
}


def complaints(root):
    report.errors.clear()
    check_tree(root)
    return list(report.errors)


def mutate(copy, name, old, new, named):
    """Returns a list with the failure of the check, or an empty list."""
    text = (copy / name).read_text()
    if old not in text:
        return [f"{name}: {old!r} is not in it"]
    (copy / name).write_text(text.replace(old, new))
    found = complaints(copy)
    (copy / name).write_text(text)
    if any(named in error for error in found):
        return []
    return [f"{name}: {old!r} as {new!r} is not complained of: {found}"]


def run(root):
    failed = []
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder)
        for part in ("src", "android", "tools/quarnctl", "tools/common"):
            shutil.copytree(root / part, copy / part)
        for mutation in MUTATIONS:
            failed += mutate(copy, *mutation)
    report.errors.clear()
    check_symbols(root, {"malloc", "_Znwm", "__errno_location", "mcl_init"} | HARDENED)
    failed += report.errors
    report.errors.clear()
    check_symbols(root, {"qsort_s"})
    if not any("qsort_s is not known" in error for error in report.errors):
        failed.append("an unknown symbol is not complained of")
    report.errors[:] = failed
