#include "sysconfig/camera_access.h"

#include <array>

#include "common/log.h"
#include "sysconfig/common_camera_access.h"
#include "sysconfig/sd_card_format.h"

namespace {

// Two records handed to one handler.
struct StorageInfoQuery {
    StorageInfoIn *in;
    StorageInfo *out;
};

template <typename Record, int (*Handler)(int, Record *)>
int Adapt(int value, void *record) {
    return Handler(value, static_cast<Record *>(record));
}

template <typename Record, int (*Handler)(Record *)>
int AdaptRecordOnly(int /*value*/, void *record) {
    return Handler(static_cast<Record *>(record));
}

int InitHandler(int processArg, void * /*record*/) { return Common_Init(processArg); }

int StorageInfoHandler(int /*value*/, void *record) {
    auto *query = static_cast<StorageInfoQuery *>(record);
    return Common_GetStorageInfo(query->in, query->out);
}

struct CommandHandler {
    int cmd;
    CameraHandler handler;
};

constexpr CommandHandler kCommonHandlers[] = {
    {CAMERA_CMD_INIT, InitHandler},
    {CAMERA_CMD_GET_VIDEO_ENCODING, Adapt<VideoEncodingProperty, Common_GetVideoEncodingProperty>},
    {CAMERA_CMD_GET_AUDIO_ENCODING, Adapt<AudioEncodingProperty, Common_GetAudioEncodingProperty>},
    {CAMERA_CMD_GET_AUDIO, Adapt<AudioProperty, Common_GetAudioProperty>},
    {CAMERA_CMD_GET_IMAGE, Adapt<ImageProperty, Common_GetImageProperty>},
    {CAMERA_CMD_GET_REGULAR_RECORD, Adapt<RegularRecordProperty, Common_GetRegularRecordProperty>},
    {CAMERA_CMD_SET_REGULAR_RECORD,
     AdaptRecordOnly<const RegularRecordProperty, Common_SetRegularRecordProperty>},
    {CAMERA_CMD_GET_STORAGE, Adapt<StorageProperty, Common_GetStorageProperty>},
    {CAMERA_CMD_GET_ALARM, Adapt<AlarmProperty, Common_GetAlarmProperty>},
    {CAMERA_CMD_GET_STORAGE_INFO, StorageInfoHandler},
    {CAMERA_CMD_STORAGE_OPTION, AdaptRecordOnly<const StorageOption, Common_StorageOption>},
    {CAMERA_CMD_STORAGE_OPTION_SYNC, AdaptRecordOnly<const StorageOption, Common_StorageOption2>},
    {CAMERA_CMD_GET_PLAYBACK_QUERY_FILE, Adapt<PlayBackQuery, Common_GetPlayBackQueryFile>},
};

// The reduced table serves initialisation and the encoding properties only.
constexpr int kReducedHandlerLimit = 29;

CameraHandler HandlerOf(int cmd, int handlerLimit) {
    if (cmd >= handlerLimit) return nullptr;
    for (const CommandHandler &entry : kCommonHandlers) {
        if (entry.cmd == cmd) return entry.handler;
    }
    return nullptr;
}

// Entry i carries command i.
constexpr std::array<CameraAccess, kCommonTableSize> MakeCommonTable() {
    std::array<CameraAccess, kCommonTableSize> table{};
    for (int i = 0; i < kCommonTableSize; ++i) table[i] = {i, HandlerOf(i, kCommonTableSize)};
    return table;
}

// From entry 29 on the commands are shifted by one, with entries 45 (47)
// and 46 (46) off that pattern; those entries fail the match check.
constexpr int ReducedCommandAt(int i) {
    constexpr int kFirstShifted = 29;
    constexpr int kDoubleShifted = 45;
    constexpr int kUnshifted = 46;
    if (i < kFirstShifted || i == kUnshifted) return i;
    if (i == kDoubleShifted) return i + 2;
    return i + 1;
}

constexpr std::array<CameraAccess, kReducedTableSize> MakeReducedTable() {
    std::array<CameraAccess, kReducedTableSize> table{};
    for (int i = 0; i < kReducedTableSize; ++i)
        table[i] = {ReducedCommandAt(i), HandlerOf(i, kReducedHandlerLimit)};
    return table;
}

const std::array<CameraAccess, kCommonTableSize> kCommonTable = MakeCommonTable();
const std::array<CameraAccess, kReducedTableSize> kReducedTable = MakeReducedTable();

// Written once at start-up, read without a lock afterwards.
uint32_t g_bCameraInit = 0;
int g_cameraType = 0;
const CameraAccess *g_pCameraAccess = nullptr;
int g_cameraAccessSize = 0;

// A command outside the table reads as an empty entry (command 0, no
// handler), so it fails the match check instead of reading past the table.
CameraAccess EntryOf(int cmd) {
    if (cmd < 0 || cmd >= g_cameraAccessSize) return {0, nullptr};
    return g_pCameraAccess[cmd];
}

}  // namespace

int CameraDispatch(int cmd, int value, void *record) {
    if (record == nullptr) return kCameraBadArgument;
    int ret = CameraCmdCheck(cmd);
    if (ret != 0) return ret;
    return EntryOf(cmd).Camera_func(value, record);
}

int CameraAccessInit(int cameraType, int processArg) {
    if (g_bCameraInit != 0) return kCameraAlreadyInit;
    if (cameraType <= 0 || cameraType > kCameraTypeNone) return kCameraBadArgument;
    if (cameraType == kCameraTypeCommon) {
        g_pCameraAccess = kCommonTable.data();
        g_cameraAccessSize = kCommonTableSize;
    } else if (cameraType == kCameraTypeReduced) {
        g_pCameraAccess = kReducedTable.data();
        g_cameraAccessSize = kReducedTableSize;
    } else {
        LogWarn("Unknown camera !\n");
        return kCameraUnknown;
    }
    g_cameraType = cameraType;
    g_bCameraInit = 1;
    int ret = CameraCmdCheck(CAMERA_CMD_INIT);
    if (ret != 0) return ret;
    return EntryOf(CAMERA_CMD_INIT).Camera_func(processArg, nullptr);
}

int CameraCmdCheck(int cmd) {
    if (g_bCameraInit == 0) {
        LogWarn("Camera dev is not initialize, initialize first!\n");
        return kCameraNotInit;
    }
    if (g_pCameraAccess == nullptr) {
        LogWarn("Unknown camera !\n");
        return kCameraUnknown;
    }
    CameraAccess entry = EntryOf(cmd);
    if (entry.Camera_command != cmd) {
        LogWarn("Cmd not match!cmd = %d, pCameraAccess[%d].Camera_command = %d\n", cmd, cmd,
                entry.Camera_command);
        return kCameraCmdMismatch;
    }
    if (entry.Camera_func == nullptr) {
        LogWarn("The Onvif cmd is not support now!\n");
        return kCameraNoHandler;
    }
    return 0;
}

int CameraGetVideoEncodingProperty(VideoEncodingProperty *streams) {
    return CameraDispatch(CAMERA_CMD_GET_VIDEO_ENCODING, 0, streams);
}

int CameraGetAudioEncodingProperty(AudioEncodingProperty *property) {
    return CameraDispatch(CAMERA_CMD_GET_AUDIO_ENCODING, 0, property);
}

int CameraGetAudioProperty(AudioProperty *property) {
    return CameraDispatch(CAMERA_CMD_GET_AUDIO, 0, property);
}

int CameraGetImageProperty(ImageProperty *property) {
    return CameraDispatch(CAMERA_CMD_GET_IMAGE, 0, property);
}

int CameraGetRegularRecordProperty(RegularRecordProperty *property) {
    return CameraDispatch(CAMERA_CMD_GET_REGULAR_RECORD, 0, property);
}

int CameraSetRegularRecordProperty(RegularRecordProperty *property) {
    return CameraDispatch(CAMERA_CMD_SET_REGULAR_RECORD, 0, property);
}

int CameraGetStorageProperty(StorageProperty *property) {
    return CameraDispatch(CAMERA_CMD_GET_STORAGE, 0, property);
}

int CameraGetAlarmProperty(AlarmProperty *property) {
    return CameraDispatch(CAMERA_CMD_GET_ALARM, 0, property);
}

int CameraGetStorageInfo(StorageInfoIn *in, StorageInfo *out) {
    if (in == nullptr || out == nullptr) return kCameraBadArgument;
    StorageInfoQuery query{in, out};
    return CameraDispatch(CAMERA_CMD_GET_STORAGE_INFO, 0, &query);
}

int CameraStorageOption(StorageOption *option) {
    return CameraDispatch(CAMERA_CMD_STORAGE_OPTION, 0, option);
}

int CameraStorageOption2(StorageOption *option) {
    return CameraDispatch(CAMERA_CMD_STORAGE_OPTION_SYNC, 0, option);
}

int CameraGetPlayBackQueryFile(PlayBackQuery *query) {
    return CameraDispatch(CAMERA_CMD_GET_PLAYBACK_QUERY_FILE, 0, query);
}

void CameraAccessResetForTest() {
    g_bCameraInit = 0;
    g_cameraType = 0;
    g_pCameraAccess = nullptr;
    g_cameraAccessSize = 0;
}
