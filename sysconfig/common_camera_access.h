// Handlers of the record-related camera-access commands: reads come
// straight from SysInfo, writes go out as configuration requests.
// Every handler returns 0, or -1 for a null record or a missing SysInfo.
#pragma once

#include "sysconfig/camera_property.h"

// Source name in the handlers' trace lines.
inline constexpr const char kCommonAccessSource[] = "Common_CameraAccess_RV1126";

// Configuration initialisation for the process argument (PROCESS_* value),
// with the log switched on first.
int Common_Init(int processArg);

// Fills one record per encoder stream (kSysStreamCount records).
int Common_GetVideoEncodingProperty(int channel, VideoEncodingProperty *streams);
int Common_GetAudioEncodingProperty(int channel, AudioEncodingProperty *property);
int Common_GetAudioProperty(int channel, AudioProperty *property);
int Common_GetImageProperty(int channel, ImageProperty *property);
int Common_GetRegularRecordProperty(int channel, RegularRecordProperty *property);
int Common_GetStorageProperty(int channel, StorageProperty *property);
int Common_GetAlarmProperty(int channel, AlarmProperty *property);

// Sends the enable byte, the week schedule and the stream type, in that
// order, as three configuration requests.
int Common_SetRegularRecordProperty(const RegularRecordProperty *property);

// Answers for the card when bit 0 of the asked storage type is set; the
// asked type is set to 1 in any case.
int Common_GetStorageInfo(StorageInfoIn *in, StorageInfo *out);

// Argument check only: the search is the recording search's.
int Common_GetPlayBackQueryFile(int channel, PlayBackQuery *query);
