// Time ranges, Android log text, and the report page.
#include <gtest/gtest.h>
#include <snappy-c.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "storage/log_file_format.h"
#include "support.h"
#include "tools/common/android_log.h"
#include "tools/muxz/chart.h"
#include "tools/muxz/page.h"
#include "tools/muxz/stretch.h"
#include "tools/muxz/time_argument.h"

namespace {

using namespace muxz;

constexpr int32_t kOffset = 3600;
const int64_t kDay = WallDay(2026, 11, 23).value() - kOffset;  // the local midnight, in UTC seconds
constexpr int64_t At(int64_t hour, int64_t minute, int64_t second = 0) {
    return hour * 3600 + minute * 60 + second;
}

TEST(MuxzTime, ArgumentsMeanWhatTheCapturesTell) {
    const std::vector<Covered> evening = {{kDay + At(22, 0), kDay + At(25, 0), kOffset}};
    std::vector<Covered> two = evening;
    two.push_back({kDay + At(24 + 21, 0), kDay + At(24 + 23, 30), 2 * kOffset});
    const struct {
        const char* text;
        const std::vector<Covered>& captures;
        std::optional<int64_t> from, expected;
        const char* told;  // the day that was filled in, or the reason for the refusal
    } cases[] = {
        {"23:10", evening, {}, kDay + At(23, 10), "2026-11-23"},
        {"00:10:05", evening, {}, kDay + At(24, 10, 5), "2026-11-24"},
        {"12:00",
         evening,
         {},
         {},
         "no capture covers 12:00:00: give it with a date, of 2026-11-23, 2026-11-24"},
        {"12:00", {{kDay + 60, kDay + 90, kOffset}}, {}, kDay + At(12, 0), "2026-11-23"},
        {"22:30",
         two,
         {},
         {},
         "more than one day has a 22:30:00: give it with a date, of 2026-11-23, 2026-11-24"},
        {"2026-11-23 22:30", two, {}, kDay + At(22, 30), ""},
        // The second capture's clock is an hour ahead of the first's.
        {"2026-11-24T23:30:01", two, {}, kDay + At(24 + 22, 30, 1), ""},
        {"00:10", two, kDay + At(23, 0), kDay + At(24, 10), "2026-11-24"},
        {"23:00", two, kDay + At(23, 0), kDay + At(23, 0), "2026-11-23"},
        {"1763852530", two, {}, 1763852530, ""},
    };
    for (const auto& [text, captures, from, expected, told] : cases) {
        const auto time = ParseTime(text);
        ASSERT_TRUE(time) << text;
        const ResolvedTime got = Resolve(*time, captures, from);
        EXPECT_EQ(got.utc, expected) << text;
        EXPECT_EQ(got.why + got.chosen, told) << text;
    }
    for (const char* bad : {"", "14", "24:00", "14:60", "4:3", "14:32:10x", "2026-02-30 10:00",
                            "-5", "2026-11-23", "2026-11-23 ", "99999999999999999999"}) {
        const auto time = ParseTime(bad);
        EXPECT_TRUE(!time || time->kind == TimeArgument::Kind::kUtc) << bad;
        EXPECT_EQ(time.has_value(), std::string(bad) == "14") << bad;
    }
    EXPECT_EQ(ParseSpan("30s"), 30);
    EXPECT_EQ(ParseSpan("5m"), 300);
    EXPECT_EQ(ParseSpan("1h"), 3600);
    for (const char* bad : {"", "s", "0s", "5", "5d", "-5m", "9999999999999h"})
        EXPECT_EQ(ParseSpan(bad), std::nullopt) << bad;
    EXPECT_EQ(ShowClock(WallDay(2024, 2, 29).value() + At(23, 59, 59)), "23:59:59");
    EXPECT_EQ(ShowDay(-1), "1969-12-31");
    EXPECT_EQ(ShowSpan(250), "4 min 10 s");
}

AndroidLog Read(const std::string& text, LogClock clock = {kDay, kOffset}) {
    std::istringstream in(text);
    return ReadAndroidLog(in, clock);
}

TEST(MuxzAndroidLog, ReadsEveryFormat) {
    const int64_t time = kDay + At(14, 32, 10);
    const std::pair<std::string, std::optional<int64_t>> fronts[] = {
        {"11-23 14:32:10.123 I/QUARN   ( 1234): ", time},
        {"11-23 14:32:10.123  1234  1235 I QUARN   : ", time},
        {"11-23 14:32:10.123456 +0200 radio  1234  1235 I QUARN   : ", time - 3600},
        {"2025-11-23 14:32:10.123  1234  1235 I QUARN   : ", time - 365 * kSecondsPerDay},
        {std::to_string(time) + ".123  1234  1235 I QUARN   : ", time},
        {"      " + std::to_string(time) + ".5 I/QUARN ( 1234): ", time},
        {"QUARN I 11-23 14:32:10 1234 1235 ", time},
        {"I/QUARN   ( 1234): ", std::nullopt},
    };
    for (const auto& [front, expected] : fronts) {
        const AndroidLog log = Read(front + "read rate: 3816 KB/s, write rate: 12 KB/s\r\n");
        ASSERT_EQ(log.reports.size(), 1u) << front;
        EXPECT_EQ(log.reports[0].time, expected) << front;
        EXPECT_EQ(log.reports[0].read, 3816u);
        EXPECT_EQ(log.reports[0].written, 12u);
        EXPECT_EQ(log.untimed, expected ? 0u : 1u);
    }
    // Log lines without a year: the end of a year, and a leap day.
    const int64_t january = WallDay(2027, 1, 1).value() + 60;
    EXPECT_EQ(Read("QUARN I 12-31 23:59:59 1 1 x", {january, 0}).from, january - 61);
    const int64_t leap = WallDay(2028, 2, 29).value();
    EXPECT_EQ(Read("QUARN I 02-29 00:00:00 1 1 x", {leap + 9 * kSecondsPerDay, 0}).from, leap);
    // Lines of other programs, and lines that do not belong to a log.
    for (const char* other :
         {"--------- beginning of main", "", "11-23 14:32:10.123 I/OTHER   ( 1): QUARN : x",
          "11-23 14:32:10.123  1  2 I QUARNX  : x", "QUARN", "QUARN I 13-01 14:32:10 1 1 x",
          "11-23 14:32:10.123  1  2 I", "QUARN X 11-23 14:32:10 1 1 x", "I/QUARN", "I/QUARN(1)"})
        EXPECT_EQ(Read(other).lines, 0u) << other;
}

TEST(MuxzAndroidLog, TellsReportsAndEvents) {
    const std::string at = "QUARN I 11-23 10:00:00 1 1 ";
    const AndroidLog log =
        Read(at + "start init quarn\n" + at + "notify_handler: ntfy_code=6\n" + at +
             "read rate: 5 KB/s, write rate: 4 KB/s\n" + at + "log buffer stall count: 7\n" + at +
             "tot_read_cnt: 555 (len_greater_zero=524, len_zero=0, fail=31)\n" + at +
             "fail_read_cnt: 15 (eagain=1, eintr=2, enodev=3, ebadf=4, eother=5)\n" + at +
             "tot_poll_cnt: 31 (success=30, timeout=0, fail=1)\n" + at +
             "write_handler: drop 123 bytes data from cur_used_buf\n" + at +
             "LogFileRecycler: remove file /data/a_EE.muxz\n" + at +
             "file_io: open log_file=/data/b.muxz.tmp (fd=14)\n" + at +
             "event_detect_handle: restart quarn\n" + at + "start init quarn\n" + at +
             "quarn: drop 9 bytes that came behind the writer's stop\n" + at +
             "stop all handler done\n" + at + "start init quarn\nQUARN W 11-23 10:00:00 1 1 " +
             "file_io: log_file=/data/b was deleted, 7 bytes went with it\nQUARN E 11-23 10:00:00 "
             "1 1 x\n");
    ASSERT_EQ(log.reports.size(), 1u);
    EXPECT_EQ(log.reports[0].stalls, 7u);
    EXPECT_EQ(log.reports[0].reads, 555u);
    EXPECT_EQ(log.reports[0].faults, (std::array<uint64_t, 5>{1, 2, 3, 4, 5}));
    EXPECT_EQ(log.reports[0].poll_faults, 1u);
    EXPECT_EQ(log.lines, 17u);
    EXPECT_EQ(log.warnings, 1u);
    EXPECT_EQ(log.errors, 1u);
    std::string events;
    for (const LogEvent& event : log.events)
        events += std::string(Text(event.kind)) + " " + std::to_string(event.number) + " " +
                  event.text + "\n";
    EXPECT_EQ(events,
              "start 0 \nnotification 6 exception\ndrop 123  data from cur_used_buf\n"
              "recycled 0 /data/a_EE.muxz\nfile opened 0 /data/b.muxz.tmp\n"
              "restart asked for 0 \nstart 0 the one before did not end in order\n"
              "drop 9  that came behind the writer's stop\nend 0 \nstart 0 \n"
              "deleted or cut 0 /data/b was deleted, 7 bytes went with it\n");
}

// Returns two captures of an evening, 22:00:00 to 22:03:20 and 22:10:00 to 22:13:20. Each has four
// files of 50 s. The first capture has an exception mark, and the start of the second ends the
// exception.
Model TwoCaptures() {
    Model model;
    model.phones.resize(1);
    for (uint32_t c = 0; c < 2; ++c) {
        CaptureFacts capture;
        capture.index = c + 3;
        capture.utc_offset = kOffset;
        PhoneTime opened = kDay + kOffset + At(22, 10 * c);
        if (c == 0) {
            capture.exception.emplace();
            capture.exception->from = opened + 60;
            capture.exception->to = opened + 80;
        }
        for (uint32_t f = 0; f < 4; ++f) {
            FileFacts file;
            file.path = std::to_string(c) + "/" + std::to_string(f);
            file.index = f;
            file.opened = opened;
            file.closed = opened += 50;
            capture.files.push_back(file);
        }
        model.phones[0].captures.push_back(capture);
    }
    return model;
}

TEST(MuxzStretch, IsFoundByTimesAndExceptions) {
    const Model model = TwoCaptures();
    const int64_t evening = kDay + At(22, 0);
    const AndroidLog log = Read("QUARN I 11-23 22:01:10 1 1 notify_handler: ntfy_code=6\n");
    struct Case {
        StretchOptions options;
        const AndroidLog* log;
        const char* expected;  // from and to, in seconds after 22:00; or the reason for the refusal
        std::string told = "";
    };
    const auto time = [](const char* text) { return ParseTime(text); };
    const Case cases[] = {
        {{.from = time("22:02"), .to = time("22:11:40")}, nullptr, "120 700"},
        {{.around = time("22:12"), .span = 60},
         nullptr,
         "690 750",
         "22:12:00 is that of 2026-11-23"},
        {{.around = time("22:12")}, nullptr, "660 780"},
        {{.around = time("21:12"), .utc = true}, nullptr, "660 780"},
        {{.exception = true},
         nullptr,
         "0 140",
         "exception 1 of 1, between 2026-11-23 22:01:00 and 2026-11-23 22:01:20"},
        {{.exception = true, .exception_number = 1},
         &log,
         "10 130",
         "exception 1 of 1, 2026-11-23 22:01:10"},
        {{.exception = true, .exception_number = 2}, nullptr, "there is no exception 2, but 1"},
        {{.from = time("22:12"), .to = time("2026-11-23 22:11")},
         nullptr,
         "it ends before it begins"},
    };
    for (const auto& [options, with, expected, told] : cases) {
        ASSERT_EQ(options.Wrong(), "");
        std::string why;
        const auto stretch = FindStretch(options, model, with, why);
        if (stretch)
            why = std::to_string(stretch->from - evening) + " " +
                  std::to_string(stretch->to - evening);
        EXPECT_EQ(why, expected);
        if (!told.empty()) {
            EXPECT_EQ(stretch->told, std::vector{told}) << expected;
        }
    }
    for (const StretchOptions& wrong : {StretchOptions{.span = 5},
                                        {.from = time("22:00"), .around = time("22:00")},
                                        {.utc = true}})
        EXPECT_NE(wrong.Wrong(), "");
}

TEST(MuxzStretch, PartsAreSharesOfRawBytes) {
    const Model model = TwoCaptures();
    const int64_t evening = kDay + At(22, 0);
    const auto parts = [&](int64_t from, int64_t to, const AndroidLog* log) {
        std::string text;
        for (const Part& part : FindParts({evening + from, evening + to, {}}, model, log)) {
            const RawRange range = RangeOf(part, 1000);
            text += Text(part, false) + "; " + std::to_string(range.from) + "-" +
                    (range.to == UINT64_MAX ? "" : std::to_string(range.to)) + "\n";
        }
        return text;
    };
    EXPECT_EQ(parts(60, 115, nullptr),
              "capture 3, file 1, 22:01:00 to 22:01:40, ± 40 s; 200-\n"
              "capture 3, file 2, 22:01:40 to 22:01:55, ± 35 s; 0-300\n");
    EXPECT_EQ(parts(300, 500, nullptr), "");
    EXPECT_EQ(parts(-1000, 0, nullptr), "capture 3, file 0, 22:00:00 to 22:00:50, ± 1 s; 0-\n");
    EXPECT_EQ(parts(155, 172, nullptr),
              "capture 3, file 3, 22:02:35 to 22:02:52, ± 45 s; 100-440\n");
    // The daemon reports its rates at :08, :16, ... :56. By these reports, all bytes of the first
    // file came in the last ten of its 50 s.
    std::string text;
    for (int i = 1; i <= 8; ++i)
        text += "QUARN I 11-23 " + ShowClock(At(22, 0, 8 * i)) +
                " 1 1 read rate: 9 KB/s, write rate: " + (i < 6 ? "0" : "100") + " KB/s\n";
    const AndroidLog log = Read(text);
    EXPECT_EQ(parts(20, 44, &log), "capture 3, file 0, 22:00:20 to 22:00:44, ± 4 s; 0-400\n");
    // The second file has reports for its first 14 s only.
    EXPECT_EQ(parts(60, 70, &log), "capture 3, file 1, 22:01:00 to 22:01:10, ± 40 s; 200-400\n");

    EXPECT_TRUE((RawRange{200, 400}.Holds(199, 2)));
    EXPECT_FALSE((RawRange{200, 400}.Holds(199, 1)));
    EXPECT_TRUE((RawRange{200, 400}.Holds(399, 9)));
    EXPECT_FALSE((RawRange{200, 400}.Holds(400, 9)));
    Listing listing;
    listing.groups.resize(2);
    for (const char* path : {"0/0", "0/1"})
        listing.groups[0].files.push_back(FoundFile{path, 0, {}});
    listing.groups[1].files.push_back(FoundFile{"1/0", 0, {}});
    Narrow(listing, FindParts({evening + 60, evening + 70, {}}, model, nullptr));
    ASSERT_EQ(listing.groups.size(), 1u);
    EXPECT_EQ(listing.groups[0].files.size(), 1u);
    EXPECT_FALSE(listing.groups[0].whole);
}

// Runs the commands on three files of one minute each. Each file has ten blocks, one letter each.
TEST(MuxzStretch, IsWhatEveryCommandKeepsTo) {
    const std::string tree = "/box/logs",
                      capture = tree + "/QRXMDLog_0_2026_1123_100000t/QRXMDLog_";
    for (char file = '0'; file < '3'; ++file) {
        std::string bytes;
        for (char letter = 'a'; letter <= 'j'; ++letter) {
            const std::string raw(1000, static_cast<char>(letter + 10 * (file == '1')));
            char packed[2000];
            size_t length = sizeof(packed);
            ASSERT_EQ(snappy_compress(raw.data(), raw.size(), packed, &length), SNAPPY_OK);
            uint8_t front[quarn::log_file::kBlockHeaderSize];
            quarn::log_file::PutBlockHeader(front, {1000, static_cast<uint32_t>(length)});
            bytes.append(reinterpret_cast<char*>(front), sizeof(front)).append(packed, length);
        }
        test::WriteFile(capture + file + "_2026_1123_100" + file + "00.muxz", bytes);
    }
    test::WriteFile(
        "/box/log",
        "I/QUARN ( 1): LogFileRecycler: total log file size=0MB, skip recycle (recycle=7MB)\n");
    const struct {
        const char* arguments;
        int status;
        std::string out, err;  // parts of the output; for cat, its letters
    } cases[] = {
        {"cat --from 10:01:14 --to 10:01:40", 0, "mnopq",
         "muxz: capture 0, file 1, 10:01:14 to 10:01:40, ± 46 s\n"},
        {"cat --around '2026-11-23 10:01' --span 12s", 0, "jk", "file 0, 10:00:54 to 10:01:00"},
        {"cat --from 10:01:14 --to 10:01:40 --log /box/log", 0, "mnopq", "± 46 s"},
        {"ls -f --to 10:01:30", 0, "QRXMDLog_1_2026", "10:01:30 is that of 2026-11-23"},
        {"verify --from 10:00:30 --to 10:00:40", 0, "1 file, 10 blocks, 10000 raw bytes", ""},
        {"check --to 10:01:30", 0, "GOOD: 1 capture, 2 files", ""},
        {"info --around 10:00:10", 0, "_100000.muxz", ""},
        {"report --log /box/log", 0, "the budget, 7.34 MB", ""},
        {"cat --from 09:00 --to 09:30", 2, "", "no file holds this time"},
        {"cat --exception 2", 2, "", "no capture is marked with an exception"},
        {"cat --around noon", 2, "", "not a time: noon"},
        {"cat --span 5s", 2, "", "--span goes with"},
        {"cat --from 10:00 --log /box/none", 2, "", "/box/none: No such file"},
    };
    for (const auto& [arguments, status, out, err] : cases) {
        const std::string command = std::string(MUXZ_PROGRAM " ") + arguments + " " + tree;
        auto [ended, told, message] = test::Run(command);
        if (std::string_view(arguments).starts_with("cat")) {
            told.erase(std::unique(told.begin(), told.end()), told.end());
            EXPECT_EQ(told, out) << arguments;
        }
        EXPECT_EQ(ended, status) << arguments << message;
        EXPECT_NE(told.find(out), std::string::npos) << arguments << '\n' << told;
        EXPECT_NE(message.find(err), std::string::npos) << arguments << '\n' << message;
    }
}

// --- the report page ---

TEST(MuxzChart, PutsTimesAndValuesWhereTheyBelong) {
    const TimeAxis axis{1000, 2000, 0};
    const std::string curves =
        Draw({.title = "<T>",
              .note = "",
              .unit = "MB/s",
              .curves = {{"one", "raw", {{1250, 0}, {1500, 4}, {1600, -1}, {1750, 2}, {2000, 1}}}},
              .lanes = {},
              .spans = {{1250, 1750, "hole", "", "a \"hole\"", 0},
                        {1500, 1500, "exception", "", "", 0}}},
             axis);
    const std::string lanes = Draw({.title = "",
                                    .note = "",
                                    .unit = "",
                                    .curves = {},
                                    .lanes = {"a", "b"},
                                    .spans = {{0, 1100, "capture", "7", "", 1}}},
                                   axis);
    const std::string bars = Draw(BarChart{"", "", {{"all", 50, "50 MB"}}, 200, "budget"});
    const std::pair<const std::string&, const char*> cases[] = {
        {curves, "<h3>&lt;T&gt;</h3>"},
        // The scale goes to 4; a value below 0 interrupts the curve.
        {curves, "points='250.00,100.00 500.00,0.00 '"},
        {curves, "points='750.00,50.00 1000.00,75.00 '"},
        {curves, "class='hole' x='25.000%' width='50.000%'"},
        {curves, "<title>a &quot;hole&quot;</title>"},
        {curves, "class='exception' x1='50.000%' x2='50.000%'"},
        {curves, "x='20.000%' y='166' text-anchor='middle'>00:20</text>"},  // 1200 s
        // A bar that begins before the axis is cut off at the axis. The second lane is the lower
        // one.
        {lanes, "class='capture' x='0.000%' width='10.000%' y='32.0'"},
        {lanes, ">7</text>"},
        {bars, "class='fill' width='25.000%'"},
    };
    for (const auto& [svg, expected] : cases)
        EXPECT_NE(svg.find(expected), std::string::npos) << expected << "\n" << svg;
}

TEST(MuxzPage, ShowsTheModelAndNoMarkupOfOthers) {
    Model model = TwoCaptures();
    const std::string bad = "<script>alert('&\"')</script>";
    CaptureFacts& capture = model.phones[0].captures[1];
    capture.files[1].header.custom = {{0, bad}, {200, bad + '\xff'}};
    capture.files[1].blocks.Add(quarn::log_file::BlockHeader{262144, 100000});
    capture.files[1].name = bad;
    capture.path = capture.log_folder = "/" + bad;
    capture.name = bad;
    capture.size = 123456;
    Finding finding;
    finding.path = finding.text = bad;
    model.findings.push_back(finding);
    model.totals.captures = 2;
    // In the first capture the first files are missing, files in the middle are missing, and a
    // place is damaged.
    CaptureFacts& first = model.phones[0].captures[0];
    first.path = "/first";
    first.start = *first.files[0].opened - 60;
    first.files[2].size = 1000;
    finding = {};
    finding.path = first.path;
    finding.what = Finding::What::kFrontGone;
    model.findings.push_back(finding);
    finding.what = Finding::What::kHole;
    finding.from = *first.start + 90;
    finding.to = *first.start + 120;
    model.findings.push_back(finding);
    finding = {};
    finding.path = first.files[2].path;
    finding.offset = 500;
    model.findings.push_back(finding);
    const auto count = [](const std::string& page, const std::string& what) {
        size_t found = 0;
        for (size_t at = 0; (at = page.find(what, at)) != std::string::npos; ++at) ++found;
        return found;
    };
    std::string page = ReportPage(model);
    EXPECT_EQ(count(page, "<script"), 1u);
    EXPECT_EQ(count(page, "alert('"), 0u);
    EXPECT_GE(count(page, "&lt;script&gt;alert(&#39;&amp;&quot;&#39;)"), 5u);
    EXPECT_EQ(count(page, "No Android log was given"), 1u);
    for (const char* style : {"gone", "hole", "damage"})
        EXPECT_EQ(count(page, std::string("' class='") + style + "'"), 1u) << style;
    EXPECT_EQ(count(page, "data-key='totals.captures' data-value='2'>2<"), 1u);
    EXPECT_EQ(count(page, "data-key='phones.0.captures.1.size' data-value='123456'>123 kB<"), 1u);
    EXPECT_EQ(count(page, "data-key='phones.0.captures.1.files.1.blocks.raw' data-value='262144'"),
              1u);
    EXPECT_EQ(count(page, "modem exception in capture 3 between 2026-11-23 22:01:00 and"), 4u);

    model.android_log = Read(
        "QUARN I 11-23 22:01:00 1 1 read rate: 9 KB/s, write rate: 9 KB/s\n"
        "QUARN I 11-23 22:01:00 1 1 LogFileRecycler: remove file /" +
        bad + "\n");
    page = ReportPage(model);
    EXPECT_EQ(count(page, "<script"), 1u);
    EXPECT_EQ(count(page, "No Android log was given"), 0u);
    EXPECT_EQ(count(page, "recycled /&lt;script&gt;"), 1u);
    EXPECT_EQ(count(page, "class='chart"), 8u);
    EXPECT_EQ(count(ReportPage({}), "class='chart"), 0u);
}

}  // namespace
