#include "pool/TqUvcDiscPkt.h"

#include <cstring>

#include "support/LibLogs.h"

namespace {

template <size_t N>
char* terminated(char (&field)[N]) {
  field[N - 1] = '\0';
  return field;
}

}  // namespace

TqUvcDiscPkt::TqUvcDiscPkt(TqUvcDiscPkt* other) : data_{} {
  if (other != nullptr) {
    data_ = other->data_;
    data_.Copied = 1;
  } else {
    data_.Copied = 0;
    Log.Debug("TqUvcDiscPkt::TqUvcDiscPkt init data: sizeof(DiscData):%d, Vid.Pid:%4.4x.%4.4x\n",
              static_cast<int>(sizeof data_), data_.Vid, data_.Pid);
  }
  Log.Trace("TqUvcDiscPkt::TqUvcDiscPkt new DiscData created: [pDiscData:%p] Vid.Pid:%4.4x.%4.4x\n",
            static_cast<void*>(&data_), data_.Vid, data_.Pid);
}

TqUvcDiscPkt::~TqUvcDiscPkt() {
  Log.Trace("TqUvcDiscPkt::~TqUvcDiscPkt [DiscData:%p]", static_cast<void*>(&data_));
}

int TqUvcDiscPkt::ItsMe(TqUvcDiscPkt* other) {
  if (other == nullptr) return 0;
  if (other->data_.Vid != data_.Vid || other->data_.Pid != data_.Pid) return 0;
  const char* theirs = other->GetSerialNr();
  const char* mine = GetSerialNr();
  if (std::strncmp(theirs, mine, sizeof data_.SerialNr) != 0) return 0;
  Log.Trace("TqUvcDiscPkt::ItsMe[%s] cam:Vid.Pid:%4.4x.%4.4x ID:\"%s\" me:Vid.Pid:%4.4x.%4.4x ID:\"%s\"\n",
            "yes", other->data_.Vid, other->data_.Pid, theirs, data_.Vid, data_.Pid, mine);
  return 1;
}

char* TqUvcDiscPkt::GetManfctName() { return terminated(data_.ManfctName); }
char* TqUvcDiscPkt::GetModelName() { return terminated(data_.ModName); }
char* TqUvcDiscPkt::GetDevVersion() { return terminated(data_.DevVersion); }
char* TqUvcDiscPkt::GetManfctSpecInf() { return terminated(data_.ManfctSpecInf); }
char* TqUvcDiscPkt::GetSerialNr() { return terminated(data_.SerialNr); }
char* TqUvcDiscPkt::GetNickName() { return terminated(data_.Nickname); }

void TqUvcDiscPkt::DumpPktToLog(unsigned int /*unused*/) {
  Log.Info("TqUvcDiscPkt::DumpPktToLog :: --- Discovery Packet -----------------------\n");
  Log.Info("  UvcVersion    0x%.08X\n", data_.UsbVersion);
  Log.Info("  ManfctName     %s\n", GetManfctName());
  Log.Info("  ModName        %s\n", GetModelName());
  Log.Info("  DevVersion     %s\n", GetDevVersion());
  Log.Info("  ManfctSpecInf: %s\n", GetManfctSpecInf());
  Log.Info("  SerialNr       %s\n", GetSerialNr());
  Log.Info("  Nickname       %s\n", GetNickName());
  Log.Info("  Vid:           %04X\n", data_.Vid);
  Log.Info("  Pid:           %04X\n", data_.Pid);
  Log.Info("  MI:            %04X\n", data_.MI);
  Log.Info("  InstanceID:    %s\n", terminated(data_.InstanceID));
  Log.Info("  GetDevicePath: %s\n", terminated(data_.DevicePath));
  Log.Info("  Nickname:      %s\n", GetNickName());
}

void TqUvcDiscPkt::LogDifferences(TqUvcDiscPkt* other) {
  if (other == nullptr) return;
  Log.Info("TqUvcDiscPkt::DumpPktToLog :: --- Differences in Discovery Packet -----------------------\n");
  struct Text {
    const char* format;
    char* mine;
    char* theirs;
  };
  // Serial number and nickname are terminated but not compared.
  GetSerialNr();
  GetNickName();
  other->GetSerialNr();
  other->GetNickName();
  const Text texts[] = {
      {"  ManfctName     \"%s\"   \"%s\"\n", GetManfctName(), other->GetManfctName()},
      {"  ModName        \"%s\"   \"%s\"\n", GetModelName(), other->GetModelName()},
      {"  DevVersion     \"%s\"   \"%s\"\n", GetDevVersion(), other->GetDevVersion()},
      {"  ManfctSpecInf: \"%s\"   \"%s\"\n", GetManfctSpecInf(), other->GetManfctSpecInf()},
      {"  InstanceID:    \"%s\"   \"%s\"\n", terminated(data_.InstanceID),
       terminated(other->data_.InstanceID)},
      {"  DevicePath:    \"%s\"   \"%s\"\n", terminated(data_.DevicePath),
       terminated(other->data_.DevicePath)},
  };
  for (const auto& t : texts)
    if (std::strcmp(t.mine, t.theirs) != 0) Log.Info(t.format, t.mine, t.theirs);
  if (data_.UsbVersion != other->data_.UsbVersion)
    Log.Info("  UsbVersion:    %08X  %08X\n", data_.UsbVersion, other->data_.UsbVersion);
  if (data_.Vid != other->data_.Vid) Log.Info("  Vid:           %04X  %04X\n", data_.Vid, other->data_.Vid);
  if (data_.Pid != other->data_.Pid) Log.Info("  Pid:           %04X  %04X\n", data_.Pid, other->data_.Pid);
  if (data_.MI != other->data_.MI) Log.Info("  MI:            %04X  %04X\n", data_.MI, other->data_.MI);
  Log.Info("TqUvcDiscPkt::DumpPktToLog :: --- End Differences in Discovery Packet -----------------------\n");
}

void TqUvcDiscPkt::CopyFrom(const TqUvcDiscPkt& other) {
  if (std::memcmp(&data_, &other.data_, sizeof data_) == 0) return;
  static_assert(sizeof data_ % sizeof(uint32_t) == 0, "the record is whole words");
  auto* dst = reinterpret_cast<uint32_t*>(&data_);
  const auto* src = reinterpret_cast<const uint32_t*>(&other.data_);
  for (size_t i = 0; i < sizeof data_ / sizeof(uint32_t); ++i)
    __atomic_store_n(&dst[i], src[i], __ATOMIC_RELAXED);
}
