// Camera-access dispatch: one table of {command, handler} pairs chosen by
// camera type at start-up, and a Camera* wrapper per command that checks the
// command against the table and calls its handler with the caller's record.
#pragma once

#include <cstdint>

#include "sysconfig/camera_property.h"

// Dispatch codes.
inline constexpr int kCameraBadArgument = -1;
inline constexpr int kCameraAlreadyInit = -2;
inline constexpr int kCameraNotInit = -3;
inline constexpr int kCameraUnknown = -4;
inline constexpr int kCameraNoHandler = -5;
inline constexpr int kCameraCmdMismatch = -7;

// Camera types.
inline constexpr int kCameraTypeCommon = 1;   // the full table, used by the recorder
inline constexpr int kCameraTypeReduced = 2;  // the reduced table
inline constexpr int kCameraTypeNone = 3;     // no table
inline constexpr int kCommonTableSize = 216;
inline constexpr int kReducedTableSize = 71;

// Command numbers of the record-related properties.
enum CameraCommand : int {
    CAMERA_CMD_INIT = 1,
    CAMERA_CMD_GET_VIDEO_ENCODING = 15,
    CAMERA_CMD_GET_AUDIO_ENCODING = 27,
    CAMERA_CMD_GET_AUDIO = 80,
    CAMERA_CMD_GET_IMAGE = 84,
    CAMERA_CMD_GET_REGULAR_RECORD = 115,
    CAMERA_CMD_SET_REGULAR_RECORD = 116,
    CAMERA_CMD_GET_STORAGE = 117,
    CAMERA_CMD_GET_ALARM = 118,
    CAMERA_CMD_GET_STORAGE_INFO = 119,
    CAMERA_CMD_STORAGE_OPTION = 120,
    CAMERA_CMD_STORAGE_OPTION_SYNC = 121,
    CAMERA_CMD_GET_PLAYBACK_QUERY_FILE = 122,
};

// Handler: channel or input value, and the property record.
using CameraHandler = int (*)(int value, void *record);

struct CameraAccess {
    int Camera_command;         // Camera_command: meant to equal the entry's index
    CameraHandler Camera_func;  // Camera_func: null for an unsupported command
};

// Selects the table of the camera type and runs command 1 (Common_Init)
// with the process argument. 0 or the handler's result; -2 when already
// initialised; -1 for a type of 0 or above 3; -4 for a type without table.
int CameraAccessInit(int cameraType, int processArg);

// 0 when the command can be dispatched, else -3, -4, -7 or -5.
int CameraCmdCheck(int cmd);

// The shape of every wrapper: -1 for a null record, the check's code, or
// the handler's result (called with value and record).
int CameraDispatch(int cmd, int value, void *record);

// Wrappers: -1 for a null record, the check's code, or the handler's result.
int CameraGetVideoEncodingProperty(VideoEncodingProperty *streams);  // kSysStreamCount records
int CameraGetAudioEncodingProperty(AudioEncodingProperty *property);
int CameraGetAudioProperty(AudioProperty *property);
int CameraGetImageProperty(ImageProperty *property);
int CameraGetRegularRecordProperty(RegularRecordProperty *property);
int CameraSetRegularRecordProperty(RegularRecordProperty *property);
int CameraGetStorageProperty(StorageProperty *property);
int CameraGetAlarmProperty(AlarmProperty *property);
int CameraGetStorageInfo(StorageInfoIn *in, StorageInfo *out);
int CameraStorageOption(StorageOption *option);
int CameraStorageOption2(StorageOption *option);
int CameraGetPlayBackQueryFile(PlayBackQuery *query);

// Tests: forget the initialisation.
void CameraAccessResetForTest();
