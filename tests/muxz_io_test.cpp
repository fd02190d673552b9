// muxz in scripts: archives, pipes, JSON, following the daemon, terminals, wrong calls.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "daemon_process.h"
#include "made_log.h"
#include "support.h"
#include "tools/muxz/text.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string kTree = "/data/vendor/radio/quarn/logs";
const std::string kFirst = "QRXMDLog_0_2024_0101_100000";
const std::string kSecond = "QRXMDLog_1_2024_0101_110000t";

struct Entry {
    std::string path;
    std::string bytes;
    std::string link = {};  // target of a symbolic link; empty: no link
    size_t zeros = 0;       // number of zero bytes after `bytes`
};

// Returns the bytes of an archive. The library that makes it is the one that muxz reads it with.
std::string Pack(const std::string& kind, const std::vector<Entry>& entries) {
    struct archive* const out = archive_write_new();
    kind == "zip" ? archive_write_set_format_zip(out) : archive_write_set_format_pax(out);
    if (kind == "tar.gz") {
        archive_write_add_filter_gzip(out);
        archive_write_set_filter_option(out, "gzip", "compression-level", "1");
    }
    archive_write_set_bytes_in_last_block(out, 1);
    EXPECT_EQ(archive_write_open_filename(out, "/box/packed"), ARCHIVE_OK);
    for (const Entry& entry : entries) {
        archive_entry* const header = archive_entry_new();
        archive_entry_set_pathname(header, entry.path.c_str());
        archive_entry_set_filetype(header, entry.link.empty() ? AE_IFREG : AE_IFLNK);
        if (!entry.link.empty()) archive_entry_set_symlink(header, entry.link.c_str());
        archive_entry_set_perm(header, 0600);
        archive_entry_set_size(header, static_cast<la_int64_t>(entry.bytes.size() + entry.zeros));
        EXPECT_EQ(archive_write_header(out, header), ARCHIVE_OK);
        archive_write_data(out, entry.bytes.data(), entry.bytes.size());
        archive_entry_free(header);
    }
    archive_write_close(out);
    archive_write_free(out);
    return test::ReadFile("/box/packed");
}

class MuxzIo : public testing::Test {
  protected:
    using Run = test::Ran;
    // Runs a command line in a shell in which "muxz" is the program under test.
    static Run Shell(const std::string& line) {
        return test::Run("muxz() { " MUXZ_PROGRAM " \"$@\"; }\ncd /box\n" + line + "\n");
    }
    // Returns the bytes of a log file without a header.
    static std::string Log(uint64_t seed, size_t blocks = 3) {
        std::string bytes;
        for (size_t i = 0; i < blocks; ++i)
            bytes += test::BlockBytes(test::StreamBytes(5000 + i, 100 * seed + i));
        return bytes;
    }
    static std::string Damaged(std::string log) {
        return log.replace(log.size() / 2, 100, std::string(100, '\xff'));
    }
    static std::string File(const std::string& capture, int index) {
        const std::string number = std::to_string(index);
        return capture + "/QRXMDLog_" + number + "_2024_0101_1" + number + "0000.muxz";
    }
    // Returns two captures, a power-on log and the folder history. The second capture has a gap.
    // The paths of the log files begin with logs/.
    static std::vector<Entry> SomeTree() {
        return {{"logs/" + File(kSecond, 2), Log(5)},
                {"logs/" + File(kFirst, 0), Log(1)},
                {"logs/" + File(kFirst, 1), Log(2)},
                {"logs/" + File(kSecond, 0), Log(3)},
                {"logs/power_on_log.muxz", Log(9)},
                {"logs/notes.txt", "not a log"},
                {"log_folder_history", "QRXMDLog_0_2024_0101_100000\n"}};
    }
    // Writes the entries to disk.
    static void PutTree(const std::vector<Entry>& entries) {
        for (const Entry& entry : entries) test::WriteFile("/box/disk/" + entry.path, entry.bytes);
    }
};

TEST_F(MuxzIo, ReadsArchivesAndPipesAsTheTreesInThem) {
    const std::vector<Entry> tree = SomeTree();
    PutTree(tree);
    const Run cat = Shell("muxz cat disk/logs"), verify = Shell("muxz verify disk/logs"),
              ls = Shell("cd disk; muxz ls -r -f logs");
    ASSERT_EQ(verify.status, 1) << verify.err;
    ASSERT_NE(verify.out.find("power-on log: 1 file, "), std::string::npos) << verify.out;
    for (const std::string kind : {"tar", "tar.gz", "zip"}) {
        const std::string name = "x." + kind;
        test::WriteFile("/box/" + name, Pack(kind, tree));
        for (const auto& [command, path] : std::vector<std::pair<std::string, std::string>>{
                 {"", name}, {"cat " + name + " | ", "-"}, {"cat " + name + " | ", "/dev/fd/0"}}) {
            SCOPED_TRACE(name + " as " + path);
            const Run own_cat = Shell(command + "muxz cat " + path);
            EXPECT_EQ(own_cat.status, cat.status) << own_cat.err;
            EXPECT_TRUE(own_cat.out == cat.out) << own_cat.err;
            const Run own_verify = Shell(command + "muxz verify " + path);
            EXPECT_EQ(own_verify.out, verify.out);
            // Except for the place of the files, the output is the same as for the tree.
            std::string listed = Shell(command + "muxz ls -r -f " + path).out;
            const std::string front = path + ":";
            for (size_t at; (at = listed.find(front)) != std::string::npos;)
                listed.erase(at, front.size());
            EXPECT_EQ(listed, ls.out);
        }
        EXPECT_EQ(Shell("muxz cat - < " + name).out, cat.out);
        EXPECT_EQ(Shell("muxz cat -o " + name + " " + name).status, 2) << "overwrites its input";
        EXPECT_EQ(Shell("muxz recover " + name).out.size(), cat.out.size());
    }
}

// muxz prints a log file, in contrast to an archive, while it reads it.
TEST_F(MuxzIo, ReadsALogFileFromAPipe) {
    const std::string log = Log(1, 200);
    test::WriteFile("/box/log", log);
    const std::string raw = Shell("muxz cat log").out;
    ASSERT_EQ(raw.size(), 200 * 5000 + 199 * 100);
    EXPECT_EQ(Shell("cat log | muxz cat -").out, raw);
    EXPECT_EQ(Shell("cat log | muxz recover -").out, raw);
    EXPECT_EQ(Shell("cat log | muxz verify -").out, Shell("muxz verify log").out);
    EXPECT_EQ(
        Shell("{ head -c 100000 log; head -c 2000 >/dev/null; cat; } < log | muxz cat -").status,
        1);
    EXPECT_EQ(Shell("head -c 100000 log | muxz verify -").status, 1);
    // muxz prints the first of two files before the writer sends the second one.
    EXPECT_EQ(Shell("mkfifo ready; { cat log; cat ready; } | muxz cat - | { head -c 900000 "
                    ">/dev/null; echo > ready; wc -c; }")
                  .out,
              std::to_string(raw.size() - 900000) + "\n");
    // If muxz cannot store temporary data, the message explains that TMPDIR sets the folder.
    for (const char* line : {"cat log | TMPDIR=/box/no muxz cat -",
                             "ulimit -f 100; cat log | TMPDIR=/box muxz verify -",
                             "ulimit -f 100; cat log | TMPDIR=/box muxz cat - | cat >/dev/null"}) {
        EXPECT_NE(Shell(line).err.find("TMPDIR names another folder"), std::string::npos) << line;
    }
    EXPECT_EQ(Shell("cat log | TMPDIR=/box muxz verify -").status, 0);
    for (const std::string& name : test::List("/box"))
        EXPECT_FALSE(name.starts_with("muxz")) << name << " was left behind";
}

TEST_F(MuxzIo, AHostileArchiveReachesNothing) {
    const std::string inside = File(kFirst, 0), evil = "QRXMDLog_7_2024_0101_100000.muxz";
    test::WriteFile(
        "/box/x.tar",
        Pack("tar", {{"/../.././" + inside, Log(1)},
                     {"../" + File(kFirst, 1), Log(2)},
                     {kFirst + "/" + evil, "", "/etc/passwd"},
                     {kFirst + "/a\033[2J/../" + std::string(300, 'n') + ".muxz", ""}}));
    const Run run = Shell("muxz cat x.tar");
    PutTree({{File(kFirst, 0), Log(1)}, {File(kFirst, 1), Log(2)}});
    EXPECT_TRUE(run.out == Shell("muxz cat disk").out) << run.err;
    EXPECT_NE(run.err.find(evil + " in it is a link"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find('\033'), std::string::npos);

    // muxz uses the readable part of a damaged archive.
    const std::string tar = test::ReadFile("/box/x.tar");
    const size_t second = tar.find(Log(2));
    ASSERT_NE(second, std::string::npos);
    test::WriteFile("/box/cut.tar", tar.substr(0, second + 6000));
    const Run cut = Shell("muxz cat cut.tar");
    EXPECT_EQ(cut.status, 2);
    EXPECT_NE(cut.err.find("damaged archive"), std::string::npos) << cut.err;
    EXPECT_TRUE(run.out.starts_with(cut.out) && cut.out.size() > 3 * 5000) << cut.out.size();
    const std::string packed = Pack("tar.gz", SomeTree());
    test::WriteFile("/box/cut.tgz", packed.substr(0, packed.size() / 2));
    EXPECT_EQ(Shell("muxz verify cut.tgz").status, 2);

    // An archive that unpacks to far more bytes than it has: zeros in front of a log file.
    test::WriteFile("/box/bomb.tgz",
                    Pack("tar.gz", {{"zeros", "", "", 300 << 20}, {inside, Log(1)}}));
    const Run bombed = Shell("muxz check bomb.tgz");
    EXPECT_EQ(bombed.status, 2);
    EXPECT_NE(bombed.out.find("100 times"), std::string::npos) << bombed.out;
}

// The page docs/muxz-json.md explains every field, and JSON contains the same numbers as the text
// output.
TEST_F(MuxzIo, TellsProgramsWhatItTellsPeople) {
    PutTree(SomeTree());
    test::WriteFile("/box/disk/logs/" + File(kFirst, 2), Damaged(Log(6)));
    fs::rename("/box/disk/logs/" + kFirst, "/box/disk/logs/" + kFirst + "_EE");
    fs::rename("/box/disk/logs", "/box/disk/l\xff");
    const std::string text = Shell("muxz verify disk").out;
    std::vector<json> all;
    for (const char* command : {"verify", "check", "check --quick", "info", "ls", "ls -r"}) {
        const Run run = Shell("muxz " + std::string(command) + " --json disk");
        all.push_back(json::parse(run.out));
        EXPECT_EQ(all.back()["status"], run.status) << command;
        EXPECT_EQ(run.err, "") << command;
    }
    test::WriteFile(
        "/box/log",
        "11-23 04:42:24.100  1  2 I QUARN   : read rate: 4096 KB/s, write rate: 4095 KB/s\n");
    all.push_back(json::parse(Shell("muxz check --json --log log disk").out));
    EXPECT_EQ(all.back()["android_log"]["lines"], 1) << all.back()["android_log"];
    const json& model = all.front();
    EXPECT_EQ(model["schema"], 1);
    EXPECT_EQ(model["status"], 1);
    const json& totals = model["totals"];
    const auto number = [](const json& value) { return std::to_string(value.get<uint64_t>()); };
    EXPECT_NE(text.find(number(totals["files"]) + " files, " + number(totals["blocks"]["blocks"]) +
                        " blocks, " + number(totals["blocks"]["raw"]) + " raw bytes"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(number(totals["faults"]) + " fault"), std::string::npos) << text;
    EXPECT_NE(text.find("(" + number(totals["holes"]) + " hole"), std::string::npos) << text;
    EXPECT_EQ(totals["exceptions"], 1);
    const json& captures = model["phones"][0]["captures"];
    ASSERT_EQ(captures.size(), 2u);
    EXPECT_EQ(captures[0]["start"], 1704103200);
    EXPECT_EQ(captures[0]["files"][1]["index"], 1);
    EXPECT_EQ(captures[0]["files"][0]["header"]["kind"], "none");
    EXPECT_EQ(captures[1]["state"], "newest");
    EXPECT_GT(captures[0]["damaged_bytes"], 0);
    const json& ls = all[4];
    EXPECT_TRUE(ls["totals"]["blocks"].is_null());  // ls without an option does not count blocks
    EXPECT_EQ(all[5]["totals"]["blocks"]["raw"].is_null(), false);

    const std::string page = test::ReadFile(MUXZ_JSON_PAGE);
    std::vector<const json*> open;
    for (const json& document : all) open.push_back(&document);
    size_t fields = 0;
    while (!open.empty()) {
        const json& value = *open.back();
        open.pop_back();
        for (const auto& [name, field] : value.items()) {
            if (field.is_structured()) open.push_back(&field);
            if (!value.is_object()) continue;
            ++fields;
            EXPECT_NE(page.find("`" + name + "`"), std::string::npos) << name;
        }
    }
    EXPECT_GT(fields, 500u);
}

// The output has the same lines in the same order with any number of cores. --first prints the
// first fault in this order.
TEST_F(MuxzIo, AllCoresTellWhatOneTells) {
    for (int i = 0; i < 40; ++i) {
        std::string log = Log(static_cast<uint64_t>(i), i % 7 == 0 ? 60 : 3);
        if (i % 3 == 2) log = Damaged(log);
        char name[64];
        snprintf(name, sizeof(name), "/QRXMDLog_%d_2024_0101_10%02d00.muxz", i, i);
        test::WriteFile("/box/disk/" + kFirst + name, log);
    }
    const Run one = Shell("taskset -c 0 " MUXZ_PROGRAM " verify disk");
    ASSERT_EQ(one.status, 1) << one.err;
    const std::string first = one.err.substr(0, one.err.find('\n') + 1);
    for (int i = 0; i < 5; ++i) {
        const Run all = Shell("muxz verify disk");
        EXPECT_EQ(all.err, one.err);
        EXPECT_EQ(all.out, one.out);
        EXPECT_EQ(Shell("muxz verify --first disk").err, first);
    }
}

TEST_F(MuxzIo, NamesTheWordThatIsWrong) {
    for (const auto& [line, word] :
         std::vector<std::pair<std::string, std::string>>{{"", "no command"},
                                                          {"frob", "frob"},
                                                          {"help frob", "frob"},
                                                          {"cat", "no path"},
                                                          {"cat -z x", "-z"},
                                                          {"cat -Pz x", "z"},
                                                          {"verify --all x", "--all"},
                                                          {"ls --frob x", "--frob"},
                                                          {"cat x -o", "-o"},
                                                          {"cat --follow x y", "--follow"},
                                                          {"cat --follow gone", "gone"},
                                                          {"cat - - <gone.tar", "gone.tar"}}) {
        const Run run = Shell("muxz " + line);
        EXPECT_EQ(run.status, 2) << line;
        EXPECT_EQ(run.out, "") << line;
        EXPECT_NE(run.err.find(word), std::string::npos) << line << ": " << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    EXPECT_EQ(Shell("muxz help cat").out, Shell("muxz cat --help").out);
    EXPECT_EQ(Shell("muxz --version").out.substr(0, 5), "muxz ");
}

// Runs programs on a terminal. `Run` returns what the program printed, and its status.
class Terminal {
  public:
    Terminal() {
        fs::create_directories("/box/pts");
        EXPECT_EQ(mount("devpts", "/box/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0)
            << strerror(errno);
    }
    std::pair<std::string, int> Run(const std::string& line) {
        const int own = open("/box/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
        unlockpt(own);
        int number = 0;
        ioctl(own, TIOCGPTN, &number);
        const std::string name = "/box/pts/" + std::to_string(number);
        const pid_t child = fork();
        if (child == 0) {
            const int other = open(name.c_str(), O_RDWR | O_NOCTTY);
            dup2(other, STDOUT_FILENO);
            dup2(other, STDERR_FILENO);
            execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(127);
        }
        const int status = test::WaitForChild(child);
        std::string text(4096, '\0');
        pollfd ready{own, POLLIN, 0};
        size_t used = 0;
        while (used < text.size() && poll(&ready, 1, 0) == 1) {
            const ssize_t got = read(own, text.data() + used, text.size() - used);
            if (got <= 0) break;
            used += static_cast<size_t>(got);
        }
        text.resize(used);
        close(own);
        return {text, WEXITSTATUS(status)};
    }
};

TEST_F(MuxzIo, KnowsATerminal) {
    PutTree({{File(kFirst, 0), Log(1)}});
    Terminal terminal;
    for (const std::string command : {"cat", "recover"}) {
        const auto [text, status] = terminal.Run(MUXZ_PROGRAM " " + command + " /box/disk");
        EXPECT_EQ(status, 2);
        EXPECT_NE(text.find("-o FILE"), std::string::npos) << text;
        EXPECT_NE(text.find("pipe"), std::string::npos) << text;
    }
    const std::string check = MUXZ_PROGRAM " check /box/disk";
    EXPECT_NE(terminal.Run(check).first.find("\033["), std::string::npos);
    EXPECT_EQ(terminal.Run("NO_COLOR=1 " + check).first.find("\033["), std::string::npos);
    EXPECT_EQ(terminal.Run(check + " | cat").first.find("\033["), std::string::npos);
    EXPECT_EQ(terminal.Run("taskset -c 0 " MUXZ_PROGRAM " cat /box/disk | wc -c").first,
              "15003\r\n");

    EXPECT_EQ(muxz::ProgressLine(30 << 20, 120 << 20, 3),
              " 25%  30 of 120 MiB, 10 MiB/s, 0:00:09 left");
    EXPECT_EQ(muxz::ProgressLine(30 << 20, 0, 3), "30 MiB, 10 MiB/s");
    EXPECT_EQ(muxz::ProgressLine(9 << 20, 8 << 20, 1), "100%  9 of 8 MiB, 9 MiB/s, 0:00:00 left");
}

TEST_F(MuxzIo, AReaderThatLeavesEndsItQuietly) {
    test::WriteFile("/box/log", Log(1, 200));
    // The second case is a parent that ignores the signal, as Python does.
    for (const std::string before : {"", "trap '' PIPE; "}) {
        const Run run = Shell(before + "{ muxz cat log; echo $? >status; } | head -c 1 >/dev/null");
        EXPECT_EQ(test::ReadFile("/box/status"), "141\n") << before;
        EXPECT_EQ(run.err, "") << before;
    }
}

// The daemon opens new files, renames a capture after an exception, ends a capture and begins
// another. muxz prints every byte of the stream exactly once.
TEST_F(MuxzIo, FollowsTheDaemon) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 1\nlog_mode 1\n");
    test::Daemon daemon("followed", "source generated 3\nrate 8M\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kTree) > 1'000'000; }));
    const pid_t muxz = fork();
    if (muxz == 0) {
        execl(MUXZ_PROGRAM, "muxz", "cat", "--follow", "-o", "/box/stream", kTree.c_str(), nullptr);
        _exit(127);
    }
    const auto files = [] {
        size_t count = 0;
        for (const std::string& capture : test::List(kTree)) {
            if (capture.starts_with("QRXMDLog_")) count += test::List(kTree + "/" + capture).size();
        }
        return count;
    };
    const auto grows = [&] {
        const size_t before = files();
        return test::WaitUntil([&] { return files() >= before + 3; });
    };
    ASSERT_TRUE(grows());
    test::Console("exception");
    ASSERT_TRUE(grows());
    test::Quarnctl("log_mode 0");
    test::Quarnctl("log_mode 1");
    ASSERT_TRUE(grows());
    test::Quarnctl("transfer_type 3");
    EXPECT_EQ(daemon.Wait(), 0);
    const std::string stream = test::DecodeTree(kTree);
    EXPECT_TRUE(test::WaitUntil([&] { return fs::file_size("/box/stream") >= stream.size(); }));
    kill(muxz, SIGINT);
    EXPECT_EQ(test::WaitForChild(muxz), 0);
    EXPECT_TRUE(test::ReadFile("/box/stream") == stream);
    EXPECT_GT(test::List(kTree).size(), 2u);
}

}  // namespace
