#include "sysconfig/common_camera_access.h"

#include <cstring>

#include "common/log.h"
#include "sysconfig/sys_drv.h"
#include "sysconfig/sys_request.h"

namespace {

const SysInfo *SysInfoOrLog(const char *caller) {
    const SysInfo *info = GetSysInfo();
    if (info == nullptr) LogTrace("%s %d  NULL == pSysInfo \n", caller, __LINE__);
    return info;
}

int32_t FrameRateOf(const SysInfo &info) {
    if (info.ucStreamMode[0] == kStreamModeCapped) return kFrameRateCapped;
    return info.ucVideoStandard == kVideoStandard50Hz ? kFrameRate50Hz : kFrameRate60Hz;
}

// The 364-byte week block as the configuration server stores it.
SysWeekScope WeekBlockOf(const RegularRecordProperty &property) {
    SysWeekScope week{};
    const bool onePattern = property.weekScop.ucScopeModel == kScopeModelWeekPattern;
    for (int d = 0; d < kSysWeekDays; ++d) {
        SysDayScope &day = week.dayScope[d];
        if (onePattern) {
            day.ucSocpeMode = property.weekScop.dayScope[0].ucSocpeMode;
            day.segment[0] = property.weekPattern;
            continue;
        }
        day.ucSocpeMode = property.weekScop.dayScope[d].ucSocpeMode;
        std::memcpy(day.segment, property.weekScop.dayScope[d].segment, sizeof(day.segment));
    }
    return week;
}

void LogRegularRecordProperty(const RegularRecordProperty &p) {
    LogTrace("pRegularRecordProperty->weekScop.ucScopeModel\t\t  = %d", p.weekScop.ucScopeModel);
    LogTrace("pRegularRecordProperty->videoRecord.ucEnable\t\t  = %d", p.videoRecord.ucEnable);
    LogTrace("pRegularRecordProperty->videoRecord.ucStorageType\t  = %d", p.videoRecord.ucStorageType);
    LogTrace("pRegularRecordProperty->videoRecord.ucVideoStreamType = %d", p.videoRecord.ucVideoStreamType);
    for (int d = 0; d < kSysWeekDays; ++d) {
        for (int k = 0; k < kSysDaySegments; ++k) {
            const ScopeSegment &s = p.weekScop.dayScope[d].segment[k];
            LogTrace(
                "[%d][%d]:beginHour.ucHour = %d, beginHour.ucMinute = %d,endHour.ucHour = %d,"
                "endHour.ucMinute = %d ucType %d",
                d, k, s.beginHour.ucHour, s.beginHour.ucMinute, s.endHour.ucHour, s.endHour.ucMinute,
                s.endHour.ucType);
        }
    }
}

}  // namespace

int Common_Init(int processArg) {
    LogEnable("OnvifAccess", 3);
    return SysConfigInit(processArg);
}

int Common_GetVideoEncodingProperty(int /*channel*/, VideoEncodingProperty *streams) {
    const SysInfo *info = SysInfoOrLog(__func__);
    if (streams == nullptr || info == nullptr) return -1;
    std::memset(streams, 0, kVideoEncodingPropertySize);
    const int32_t frameRate = FrameRateOf(*info);
    for (int s = 0; s < kSysStreamCount; ++s) {
        VideoEncodingProperty &out = streams[s];
        out.iEnable = 1;
        out.iFrameRate = frameRate;
        out.iWidth = info->stream[s].usWidth;
        out.iHeight = info->stream[s].usHeight;
        out.iEncoding = info->iEncoding[s];
        out.iStreamMode = info->ucStreamMode[s];
        out.iStreamEncoding = info->stream[s].ucEncoding;
        out.iSmartEncEnable = info->iSmartEncEnable[s];
    }
    return 0;
}

int Common_GetAudioEncodingProperty(int /*channel*/, AudioEncodingProperty *property) {
    const SysInfo *info = SysInfoOrLog(__func__);
    if (property == nullptr || info == nullptr) return -1;
    property->iEncoding = info->audio.ucEncoding;
    for (AudioEncodingEntry &entry : property->entry) entry = {0, kAudioBitrate, kAudioSamplerate};
    return 0;
}

int Common_GetAudioProperty(int /*channel*/, AudioProperty *property) {
    const SysInfo *info = SysInfoOrLog(__func__);
    if (property == nullptr || info == nullptr) return -1;
    const SysAudioConfig &audio = info->audio;
    *property = {0,
                 audio.ucEnable,
                 audio.ucOutputVolume,
                 audio.ucInputVolume,
                 audio.ucInputModel,
                 audio.ucOutputModel};
    LogTrace("pAudioProperty->ucCn           = %d", property->ucCn);
    LogTrace("pAudioProperty->ucEnable       = %d", property->ucEnable);
    LogTrace("pAudioProperty->ucOutputVolume = %d", property->ucOutputVolume);
    LogTrace("pAudioProperty->ucInputVolume  = %d", property->ucInputVolume);
    LogTrace("pAudioProperty->ucInputModel   = %d", property->ucInputModel);
    LogTrace("pAudioProperty->ucOutputModel  = %d", property->ucOutputModel);
    return 0;
}

int Common_GetImageProperty(int channel, ImageProperty *property) {
    const SysInfo *info = SysInfoOrLog(__func__);
    if (property == nullptr || info == nullptr) return -1;
    std::memset(property, 0, sizeof(*property));
    property->ucCh = static_cast<uint8_t>(channel);
    property->image = info->image;
    // The server's text may fill its field; ours always ends in a NUL.
    property->image.szOsdText[kSysOsdTextSize - 1] = '\0';
    return 0;
}

int Common_GetRegularRecordProperty(int /*channel*/, RegularRecordProperty *property) {
    LogTrace("%s %d  %s", kCommonAccessSource, __LINE__, __func__);
    const SysInfo *info = SysInfoOrLog(__func__);
    if (property == nullptr || info == nullptr) return -1;
    std::memset(property, 0, sizeof(*property));
    const SysRecordConfig &record = info->videoRecord;
    property->videoRecord.ucEnable = record.ucEnable;
    property->videoRecord.ucVideoStreamType = record.ucVideoStreamType;
    for (int d = 0; d < kSysWeekDays; ++d) {
        const SysDayScope &day = record.weekScope.dayScope[d];
        property->weekScop.dayScope[d].ucSocpeMode = day.ucSocpeMode;
        std::memcpy(property->weekScop.dayScope[d].segment, day.segment, sizeof(day.segment));
    }
    return 0;
}

int Common_GetStorageProperty(int channel, StorageProperty *property) {
    const SysInfo *info = SysInfoOrLog(__func__);
    if (property == nullptr || info == nullptr) return -1;
    std::memset(property, 0, sizeof(*property));
    property->ucCh = static_cast<uint8_t>(channel);
    property->ucStorageType = kStoragePropertyType;
    property->ucPackingValue.ucPackingSize = kStoragePackingSize;
    property->ucLackSpaceModel = info->videoRecord.ucLackSpaceModel;
    property->ucpreRecordTime = info->videoRecord.ucpreRecordTime;
    property->ucrecordDelay = info->videoRecord.ucrecordDelay;
    return 0;
}

int Common_GetAlarmProperty(int channel, AlarmProperty *property) {
    const SysInfo *info = SysInfoOrLog(__func__);
    if (property == nullptr || info == nullptr) return -1;
    std::memset(property, 0, sizeof(*property));
    property->ucCh = static_cast<uint8_t>(channel);
    property->videoRecord.ucEnable = info->videoRecord.ucEnable;
    property->videoRecord.ucVideoStreamType = info->videoRecord.ucRecStreamType;
    property->ucpreRecordTime = info->videoRecord.ucpreRecordTime;
    property->ucrecordDelay = info->videoRecord.ucrecordDelay;
    return 0;
}

int Common_SetRegularRecordProperty(const RegularRecordProperty *property) {
    if (property == nullptr) return -1;
    LogRegularRecordProperty(*property);
    const SysWeekScope week = WeekBlockOf(*property);
    ControlSystemData(SFIELD_SET_RECORD_ENABLE, &property->videoRecord.ucEnable, 1);
    ControlSystemData(SFIELD_SET_RECORD_SCHEDULE, &week, sizeof(week));
    ControlSystemData(SFIELD_SET_RECORD_STREAM, &property->videoRecord.ucVideoStreamType, 1);
    return 0;
}

int Common_GetStorageInfo(StorageInfoIn *in, StorageInfo *out) {
    if (in == nullptr || out == nullptr) return -1;
    LogTrace("pStorageIn->ucCh = %d, pStorageIn->ucStorageType = 0x%x", in->ucCh, in->ucStorageType);
    if ((in->ucStorageType & kStorageTypeCard) != 0) {
        *out = {in->ucCh, kStorageTypeCard, 1, 0, 0, 0};
    }
    in->ucStorageType = kStorageTypeCard;
    return 0;
}

int Common_GetPlayBackQueryFile(int /*channel*/, PlayBackQuery *query) { return query == nullptr ? -1 : 0; }
