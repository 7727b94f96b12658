// Filter control over the scripted machine: calls, texts, bytes and traces.

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>
#include <gtest/gtest.h>

#include <cstring>
#include <iostream>
#include <regex>
#include <sstream>

#include "app/commands.h"
#include "errors/result_exception.h"
#include "fsfilter/filter_instances.h"
#include "fsfilter/filter_port.h"
#include "platform/scripted/attached_machine.h"
#include "platform/scripted/machine.h"

using namespace scripted;
using zan::fsfilter::FilterInstanceInfo;
using zan::fsfilter::findFilterInstances;

namespace {

using lines = std::vector<std::string>;

const std::string id = "Volume{abcdefab-3333-3333-3333-333333333333}";
const std::string port = "\\zan_restore_filter-" + id;
const std::string checking = "checking instance for volume: ";
const std::string steps = "volume is: " + id + "\n" + checking + utf8(secondVolume) +
                          " - \\Device\\V2\n" + checking + id + " - \\Device\\V3\n";
const std::string sending = "sending to instance to port: " + port + "\n";
const std::string notSent = "message not sent to port: " + port + "\n";

const std::string ofFirst = ", vol = \\\\?\\" + utf8(firstVolume);

// What diagnostic_information prints, and the line end that follows it.
std::string diagnosis(const std::string& result) {
  return "fsfilter.filter_port.cpp\\(52\\): Throw in function .*sendMessage.*\n"
         "Dynamic exception type: .*wrapexcept.*result_exception.*\n"
         "std::exception::what: .+\n"
         "0x" +
         result + "\\[.*errinfo_api_function_.*\\] = FilterSendMessage\n\n";
}

std::vector<FilterInstanceInfo> instances() {
  const auto list = findFilterInstances(L"zan_restore_filter");
  return {list.begin(), list.end()};
}

}  // namespace

TEST(Control, MakesTheseCallsInThisOrder) {
  now = attachedMachine();
  now.instances.resize(1);
  now.mountedVolume = L"\\\\?\\" + secondVolume + L"\\";
  EXPECT_EQ(run(L"--ping|f|ignored").status, 0);
  const std::string second = utf8(secondVolume);
  const lines expected{"CreateFileW f 80000000 7 - 3 80 -",
                       "GetVolumePathNameW f 261",
                       "GetVolumeNameForVolumeMountPointW C:\\ 50",
                       "FilterInstanceFindFirst zan_restore_filter 3 512",
                       "FindFirstVolumeW 260",
                       "QueryDosDeviceW " + utf8(firstVolume) + " 260",
                       "FindNextVolumeW volumes 260",
                       "QueryDosDeviceW " + second + " 260",
                       "FindVolumeClose volumes",
                       "FilterInstanceFindNext instances 3 512",
                       "FilterInstanceFindClose instances",
                       "FilterConnectCommunicationPort \\zan_restore_filter-" + second + " 0 " +
                           std::string(80, '0') + " - invalid",
                       "FilterSendMessage port f " + std::string(32, '0') + " - 0",
                       "CloseHandle f",
                       "CloseHandle port"};
  EXPECT_EQ(now.calls, expected);
  EXPECT_TRUE(now.traces.empty());
}

TEST(Control, SendsTheseBytes) {
  const std::pair<std::wstring, std::string> table[] = {
      {L"--ping|f", "00000000000000000000000000000000 - 0"},
      {L"--stopAggressiveRestore|f|x", "02000000000000000000000000000000 - 0"},
      {L"--startAggressiveRestore|4|f", "01000000010000000400000000000000 - 0"},
      {L"--startAggressiveRestore|0|f", "01000000010000000000000000000000 - 0"},
      {L"--startAggressiveRestore|-3|f", "0100000001000000fdffffff00000000 - 0"},
      {L"--progress|f", "03000000000000000000000000000000 something 16"},
  };
  for (const auto& [arguments, sent] : table) {
    now = attachedMachine();
    EXPECT_EQ(run(arguments).status, 0);
    EXPECT_EQ(now.calls.at(now.calls.size() - 3), "FilterSendMessage port f " + sent);
  }
}

TEST(Control, PrintsTheProgressThatTheFilterWrote) {
  const std::pair<std::string, std::string> table[] = {
      {{}, "0x0 of 0x0"},
      {{"\0\x1A", 2}, "0x1a00 of 0x0"},
      {{"\0\x10\0\0\0\0\0\0\0\0\x10\0\0\0\0\0", 16}, "0x1000 of 0x100000"},
      {std::string(16, '\xFF'), "0xffffffffffffffff of 0xffffffffffffffff"},
  };
  for (const auto& [reply, values] : table) {
    now = attachedMachine();
    now.reply = reply;
    const outcome done = run(L"--progress|f");
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.output, "progress: " + values + "\n");
  }
  now = attachedMachine();
  ProgressInfo used{7, 7};
  EXPECT_EQ(queryProgress(L"f", used), 0);
  EXPECT_EQ(used.progress + used.total, 0u);
}

TEST(Control, TellsWhyNothingWasSent) {
  const std::string noInstance = "no filter instance found for f\n";
  const std::string noVolume = "Cannot determine volume id: path = f\n";
  const std::wstring otherCase = L"\\\\?\\Volume{ABCDEFAB-3333-3333-3333-333333333333}\\";
  const struct {
    std::map<std::string, DWORD> failing;
    std::wstring mountedVolume;
    std::string output;  // after the status lines
    std::ptrdiff_t statusLines;
  } table[] = {
      {{{"CreateFileW", 2}}, L"", "Cannot open local file: path = f\n", 0},
      {{{"GetVolumePathNameW", 1}}, L"", noVolume, 0},
      {{{"GetVolumeNameForVolumeMountPointW", 1}}, L"", noVolume, 0},
      {{}, L"\\\\?\\volume{abcdefab}\\", noVolume, 0},
      {{{"FilterInstanceFindFirst", 0x801F0013}}, L"", noInstance, 1},
      {{{"FilterInstanceFindNext", 0x80070005}}, L"", noInstance, 2},
      {{{"FindFirstVolumeW", 5}}, L"", noInstance, 4},
      {{}, otherCase, noInstance, 4},
  };
  for (const auto& row : table) {
    for (const bool isQuery : {false, true}) {
      now = attachedMachine();
      now.failing = row.failing;
      if (!row.mountedVolume.empty()) now.mountedVolume = row.mountedVolume;
      const outcome done = run(isQuery ? L"--progress|f" : L"--ping|f");
      EXPECT_EQ(done.status, 1);
      const std::string failed = row.output + (isQuery ? "queryProgress failed\n" : "");
      EXPECT_TRUE(done.output.ends_with(failed)) << done.output;
      EXPECT_EQ(std::count(done.output.begin(), done.output.end(), '\n'),
                isQuery ? 2 : row.statusLines + 1);
      EXPECT_EQ(now.uses["FilterConnectCommunicationPort"], 0);
    }
  }
}

TEST(Control, FindsTheVolumeIdWhereverItStands) {
  const std::pair<std::wstring, std::string> table[] = {
      {L"Vol" + fileVolume + L"\\", id},
      {L"0123456789Volume{abc}", "Volume{abc}"},
  };
  for (const auto& [name, expected] : table) {
    now = attachedMachine();
    now.mountedVolume = name;
    EXPECT_TRUE(run(L"--ping|f").output.starts_with("volume is: " + expected));
  }
}

TEST(Control, ReportsAFailedSend) {
  const std::string connect = "FilterConnectCommunicationPort";
  const struct {
    std::map<std::string, DWORD> failing;
    std::string result;
    std::string trace;
  } table[] = {
      {{{"FilterSendMessage", 0x80070005}}, "80070005", ""},
      {{{"FilterSendMessage", 0x1F}}, "1f", ""},
      {{{connect, 0x80070002}},
       "80070006",
       " failed: portName = " + port + ", error = 0x80070002\n"},
      {{{connect, 1}, {"FilterSendMessage", 1}}, "1", ""},
  };
  for (const auto& row : table) {
    for (const bool isQuery : {false, true}) {
      now = attachedMachine();
      now.failing = row.failing;
      const outcome done = run(isQuery ? L"--progress|f" : L"--stopAggressiveRestore|f");
      EXPECT_EQ(done.status, 1);
      const std::string before = isQuery ? notSent : steps + sending + notSent;
      ASSERT_EQ(done.output.substr(0, before.size()), before);
      const std::regex after(diagnosis(row.result) + (isQuery ? "queryProgress failed\n" : ""));
      EXPECT_TRUE(std::regex_match(done.output.substr(before.size()), after)) << done.output;
      EXPECT_EQ(now.traces, row.trace.empty() ? lines{} : lines{connect + row.trace});
    }
  }
}

TEST(Control, ChecksTheRequestBeforeTheFile) {
  const struct {
    ControlRequest request;
    std::wstring refusal;
  } table[] = {
      {{4, {}}, L"Invalid operation\n"},
      {{0xFFFFFFFF, {}}, L"Invalid operation\n"},
      {{1, {0, 4}}, L"Invalid restore strategy\n"},
      {{1, {2, 4}}, L"Invalid restore strategy\n"},
      {{1, {1, 0}}, L""},
      {{3, {}}, L""},
      {{0, {7, 7}}, L""},
  };
  for (const auto& row : table) {
    now = attachedMachine();
    std::wstringbuf captured;
    std::wstreambuf* const previous = std::wcout.rdbuf(&captured);
    const bool isRefused = sendControlRequest(L"f", row.request) != 0;
    std::wcout.rdbuf(previous);
    EXPECT_EQ(isRefused, !row.refusal.empty());
    EXPECT_EQ(now.uses["CreateFileW"], isRefused ? 0 : 1);
    EXPECT_EQ(now.uses["FilterSendMessage"], isRefused ? 0 : 1);
    if (isRefused) {
      EXPECT_EQ(captured.str(), row.refusal);
    }
  }
}

TEST(FilterPort, StaysConnectedAfterAFailedSend) {
  now = attachedMachine();
  now.failing = {{"FilterSendMessage#1", 0x80070005}, {"CloseHandle", 6}};
  now.reply = "12345";
  {
    zan::fsfilter::filter_port connection(L"\\p");
    std::uint64_t message[3] = {};
    char reply[16];
    EXPECT_THROW(connection.sendMessage(message, 24, reply, 16), zan::except::result_exception);
    EXPECT_EQ(connection.sendMessage(message, 24, reply, 16), 5u);
  }
  EXPECT_EQ(now.traces, lines{"CloseHanle failed: portName = \\p, error = 0x6\n"});
  EXPECT_EQ(now.uses["CloseHandle"], 1);
}

TEST(Instances, AreCopiedFromTheRecords) {
  now = attachedMachine();
  now.instances = {instanceRecord(L"\\Device\\V3"), instanceRecord(L"\\Device\\V3", true),
                   instanceRecord(L"\\device\\V3"), instanceRecord(L"\\Device\\V")};
  std::wostringstream found;
  for (const FilterInstanceInfo& each : findFilterInstances(L"zan_restore_filter")) {
    found << each.isLegacyFilter << each.detachedVolume << ' ' << each.frameId << ' '
          << each.volumeFileSystemType << ' ' << each.instanceName << ' ' << each.altitude << ' '
          << each.filterName << ' ' << each.volumeDeviceName << ' ' << each.volumeId << '\n';
  }
  EXPECT_EQ(found.str(), L"01 5 2 inst\x4E2D 180000 zan_restore_filter \\Device\\V3 " + fileVolume +
                             L"\n11 0 0  40500 old \\Device\\V3 \n"
                             L"01 5 2 inst\x4E2D 180000 zan_restore_filter \\device\\V3 \n"
                             L"01 5 2 inst\x4E2D 180000 zan_restore_filter \\Device\\V \n");
  EXPECT_EQ(now.uses["FindFirstVolumeW"], 3);  // never for a legacy filter
  FilterInstanceInfo used;
  used.volumeId = L"stale";
  used.resolveVolumeId();
  EXPECT_EQ(used.volumeId, L"");
  EXPECT_TRUE(now.traces.empty());
}

TEST(Instances, TextOutsideTheBufferIsEmpty) {
  using header = INSTANCE_AGGREGATE_STANDARD_INFORMATION;
  std::string record = instanceRecord(L"\\Device\\V3");
  header changed;
  std::memcpy(&changed, record.data(), sizeof(changed));
  changed.Flags = 3;  // 2 alone means a legacy filter
  auto& mini = changed.Type.MiniFilter;
  mini.AltitudeLength = 0xFFFE;
  mini.FilterNameBufferOffset = 510;
  mini.FilterNameLength = 2;  // the last that lies within the buffer
  mini.InstanceNameBufferOffset = 511;
  mini.InstanceNameLength = 2;
  std::memcpy(record.data(), &changed, sizeof(changed));
  now = attachedMachine();
  now.instances = {record, instanceRecord(L"\\Device\\V3")};
  const auto found = instances();
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].instanceName + found[0].altitude, L"");
  EXPECT_EQ(found[0].filterName.size(), 1u);
  EXPECT_EQ(found[0].volumeId, fileVolume);
  EXPECT_EQ(found[1].filterName, L"zan_restore_filter");
}

TEST(Instances, BuffersGrowToTheirCaps) {
  now = attachedMachine();
  now.instances = {instanceRecord(L"\\Device\\V3", false, 900), instanceRecord(L"\\Device\\V3"),
                   instanceRecord(L"\\Device\\V3", false, 3000)};
  now.volumes[0].devices = {L"\\Device\\V1", std::wstring(700, L'x')};
  EXPECT_EQ(instances().size(), 3u);
  lines sizes;
  for (const std::string& call : now.calls) {
    if (call.starts_with("FilterInstanceFind") || call.find("11111111") != call.npos) {
      sizes.push_back(call.substr(call.rfind(' ') + 1));
    }
  }
  const lines query{"260", "520", "1040"};
  lines expected{"512", "1024"};
  for (const lines& next : {query, lines{"1024"}, query, lines{"1024", "2048", "4096"}, query,
                            lines{"4096", "instances"}}) {
    expected.insert(expected.end(), next.begin(), next.end());
  }
  EXPECT_EQ(sizes, expected);
  EXPECT_TRUE(now.traces.empty());
}

TEST(Instances, FailuresAreTraced) {
  const struct {
    std::string call;
    DWORD code;
    std::size_t found;
    std::string trace;
  } table[] = {
      {"FilterInstanceFindFirst", 0x80070103, 0, ""},
      {"FilterInstanceFindFirst", 0x103, 0, ""},
      {"FilterInstanceFindFirst", 0x801F0013, 0,
       "FilterInstanceFindFirst failed: status = 0x801f0013"},
      {"FilterInstanceFindFirst", 0x8007007A, 0,
       "FilterInstanceFindFirst failed: status = 0x8007007a"},
      {"FilterInstanceFindNext#3", 0x80070005, 3,
       "FilterInstanceFindNext failed: status = 0x80070005"},
      {"FilterInstanceFindNext#2", 0x7A, 3, ""},
      {"FilterInstanceFindNext#3", 0x801F0103, 3, ""},  // whatever the facility
      {"FilterInstanceFindNext#1", 1, 4, ""},           // a success: the record once more
      {"FilterInstanceFindClose", 1, 3, ""},
      {"FilterInstanceFindClose", 0x80070006, 3,
       "FilterInstanceFindClose failed: status = 0x80070006"},
      {"FindFirstVolumeW#2", 0x15, 3, "FindFirstVolume falied: hr = 0x15"},
      {"FindNextVolumeW#1", 0x1F, 3, "FindNextVolume failed: hr = 0x1f"},
      {"FindNextVolumeW#1", ERROR_MORE_DATA, 3, ""},
      {"FindVolumeClose#3", 6, 3, "FindVolumeClose falied: hr = 0x6"},
      {"QueryDosDeviceW#1", 2, 3, "QueryDosDevice failed: hr = 0x2" + ofFirst},
      {"QueryDosDeviceW#1", 122, 3, ""},
  };
  for (const auto& [call, code, found, trace] : table) {
    now = attachedMachine();
    now.failing = {{call, code}};
    EXPECT_EQ(instances().size(), found);
    EXPECT_EQ(now.traces, trace.empty() ? lines{} : lines{trace + "\n"});
    EXPECT_EQ(now.uses["FilterInstanceFindClose"], 1);
  }
  now = attachedMachine();
  now.failing = {{"FilterInstanceFindFirst", 0x8007007A}};
  EXPECT_EQ(instances().size(), 0u);
  EXPECT_EQ(now.calls.at(now.calls.size() - 2),
            "FilterInstanceFindFirst zan_restore_filter 3 1048576");
  now = attachedMachine();
  now.failing = {{"QueryDosDeviceW", 122}};
  now.volumes.resize(1);
  now.instances.resize(1);
  EXPECT_EQ(instances().at(0).volumeId, L"");
  EXPECT_EQ(now.traces, lines{"QueryDosDevice failed: hr = 0x7a" + ofFirst + "\n"});
  EXPECT_EQ(now.calls.at(now.calls.size() - 5), "QueryDosDeviceW " + utf8(firstVolume) + " 266240");
}
