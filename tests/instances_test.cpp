// The list of the filter's instances over the scripted machine.

#include <windows.h>
// after <windows.h>:
#include <fltuser.h>
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "fsfilter/filter_instances.h"
#include "tests/scripted_machine.h"

using namespace scripted;
using zan::fsfilter::FilterInstanceInfo;
using zan::fsfilter::findFilterInstances;

namespace {

using lines = std::vector<std::string>;

std::vector<FilterInstanceInfo> instances() {
  const auto list = findFilterInstances(L"zan_restore_filter");
  return {list.begin(), list.end()};
}

}  // namespace

TEST(Instances, AreCopiedFromTheRecords) {
  world = attachedMachine();
  world.instances = {instanceRecord(L"\\Device\\V3"), instanceRecord(L"\\Device\\V3", true),
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
  EXPECT_EQ(uses("FindFirstVolumeW"), 3);  // never for a legacy filter
  EXPECT_TRUE(world.traces.empty());
}

TEST(Instances, TextOutsideTheBufferIsEmpty) {
  std::string record = instanceRecord(L"\\Device\\V3");
  auto& changed = *reinterpret_cast<INSTANCE_AGGREGATE_STANDARD_INFORMATION*>(record.data());
  changed.Flags = 3;  // only 2 means a legacy filter
  auto& mini = changed.Type.MiniFilter;
  mini.AltitudeLength = 0xFFFE;
  mini.FilterNameBufferOffset = 510;
  mini.FilterNameLength = 2;  // the last two bytes of the buffer
  mini.InstanceNameBufferOffset = 511;
  mini.InstanceNameLength = 2;
  world = attachedMachine();
  world.instances = {record, instanceRecord(L"\\Device\\V3")};
  const auto found = instances();
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].instanceName + found[0].altitude, L"");
  EXPECT_EQ(found[0].filterName.size(), 1u);
  EXPECT_EQ(found[0].volumeId, fileVolume);
  EXPECT_EQ(found[1].filterName, L"zan_restore_filter");
}

TEST(Instances, BuffersGrow) {
  world = attachedMachine();
  world.instances = {instanceRecord(L"\\Device\\V3", false, 900), instanceRecord(L"\\Device\\V3"),
                     instanceRecord(L"\\Device\\V3", false, 3000)};
  world.volumes[0].devices += std::wstring(700, L'x') + L'\0';
  EXPECT_EQ(instances().size(), 3u);
  std::string sizes;
  for (const std::string& call : world.calls) {
    if (call.starts_with("FilterInstanceFind") || call.starts_with("QueryDosDeviceW")) {
      sizes += call.substr(call.rfind(' '));
    }
  }
  EXPECT_EQ(sizes,
            " 200 400 104 208 410 410 410 400 104 208 410 410 410 400 800 1000 104 208 410 410 410 "
            "1000 instances");
  EXPECT_TRUE(world.traces.empty());
}

TEST(Instances, MalformedAnswersMatchNothing) {
  const std::wstring zero(1, L'\0');
  for (const std::wstring& name :
       {zero, L"x" + zero, L"\\\\?\\" + zero, L"\\\\?\\\\" + zero, L"\\\\?\\Volume{}" + zero,
        fileVolume + L'\\' + zero, L"\\\\?\\" + std::wstring(255, L'x') + L'\\'}) {
    world = attachedMachine();
    world.volumes = {{name, {L"\\Device\\V3\0\0", 12}}};
    EXPECT_EQ(instances().at(1).volumeId, L"");
    EXPECT_EQ(uses("QueryDosDeviceW"), 0);
  }
  world = attachedMachine();
  world.volumes = {{nameOfVolume(fileVolume), std::wstring(260, L'x')}};
  EXPECT_EQ(instances().at(1).volumeId, L"");
  // A short answer without a zero is not continued by the rest of the previous answer.
  world = attachedMachine();
  world.volumes = {{nameOfVolume(firstVolume), {L"\\Device\\V3xxx\0\0", 15}},
                   {L"\\\\?\\V\\", L"\\Device\\V3"}};
  EXPECT_EQ(instances().at(1).volumeId, L"V");
}

TEST(Instances, FailuresAreTraced) {
  const std::tuple<std::string, DWORD, std::size_t, std::string> table[] = {
      {"FilterInstanceFindFirst", 0x103, 0, ""},
      {"FilterInstanceFindFirst", 0x801F0013, 0,
       "FilterInstanceFindFirst failed: status = 0x801f0013"},
      {"FilterInstanceFindFirst", 0x8007007A, 0,
       "FilterInstanceFindFirst failed: status = 0x8007007a"},
      {"FilterInstanceFindNext#3", 0x80070005, 3,
       "FilterInstanceFindNext failed: status = 0x80070005"},
      {"FilterInstanceFindNext#2", 0x7A, 3, ""},
      {"FilterInstanceFindNext#1", 1, 4, ""},  // a success: the same record is read again
      {"FilterInstanceFindClose", 1, 3, ""},
      {"FilterInstanceFindClose", 0x80070006, 3,
       "FilterInstanceFindClose failed: status = 0x80070006"},
      {"FindFirstVolumeW#2", 0x15, 3, "FindFirstVolume falied: hr = 0x15"},
      {"FindNextVolumeW#1", 0x1F, 3, "FindNextVolume failed: hr = 0x1f"},
      {"FindNextVolumeW#1", ERROR_MORE_DATA, 3, ""},
      {"FindVolumeClose#3", 0x1F, 3, "FindVolumeClose falied: hr = 0x1f"},
      {"QueryDosDeviceW#1", 2, 3,
       "QueryDosDevice failed: hr = 0x2, vol = \\\\?\\" + utf8(firstVolume)},
      {"QueryDosDeviceW#1", 122, 3, ""},
  };
  for (const auto& [call, code, found, trace] : table) {
    world = attachedMachine();
    world.failing = {{call, code}};
    const auto listed = instances();
    EXPECT_EQ(listed.size(), found);
    EXPECT_TRUE(!call.starts_with("Query") || listed.at(0).volumeId == secondVolume);
    EXPECT_EQ(world.traces, trace.empty() ? lines{} : lines{trace + "\n"});
    EXPECT_EQ(uses("FilterInstanceFindClose"), 1);
  }
}
