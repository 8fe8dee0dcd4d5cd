// The device capability string: a list of capability tokens built from the
// device parameter file "/param/CPLD.conf". The file is INI text:
//
//   [CPLD]
//   StorageCapability=2
//
// A storage-capability word of 2 gives "T1" (the device records); any other
// value, or a missing key, gives "T0" (no recording capability). When the
// file cannot be read the last string built is returned (initially empty),
// so an unreadable file never blocks recording.
#pragma once

inline constexpr char kCapabilitySection[] = "CPLD";
inline constexpr char kStorageCapabilityKey[] = "StorageCapability";
inline constexpr int kStorageCapabilityRecord = 2;
inline constexpr char kNoRecordCapability[] = "T0";

// The capability string; valid until the next call.
const char *GetDeviceCapability();

// True when the capability string says the device cannot record.
bool DeviceLacksRecordCapability();
