// AVI file context shared by the writer (H264ToAvi*) and the reader (AF_*).
// One context per open file; several fields change meaning with the mode.
#pragma once

#include <cstdint>

inline constexpr int kAviModeWrite = 0;
inline constexpr int kAviModeRead = 1;
inline constexpr int kAviCodecH264 = 0;
inline constexpr int kAviCodecH265 = 1;
inline constexpr int kAviFrameVideo = 0;
inline constexpr int kAviFrameAudio = 1;
inline constexpr int kAviPathSize = 1024;
inline constexpr uint32_t kAviDefaultFrameRate = 25;
inline constexpr int32_t kAviHeaderSize = 512;  // the movi list starts here
inline constexpr int kAviIndexEntrySize = 16;
inline constexpr char kAviIndexSuffix[] = "-index-tmp";

struct AviContext {
    int32_t iMode;                   // kAviModeWrite or kAviModeRead
    uint32_t u32RiffSize;            // read: the RIFF size word
    char szPath[kAviPathSize];       // the AVI file
    int iAviFd;                      // the AVI file, -1 when closed
    char szIndexPath[kAviPathSize];  // path + "-index-tmp"
    int iIndexFd;                    // the temporary index file, -1 when closed
    int32_t iCodec;                  // kAviCodecH264 or kAviCodecH265
    uint32_t u32VideoCount;          // video chunks written / read
    uint32_t u32AudioCount;          // audio chunks written / read
    uint32_t u32ChunkCount;          // read: chunks walked
    uint32_t u32TotalFrames;         // write: video chunks, for the main header; read: as parsed
    uint32_t u32FrameRate;           // frames per second
    uint32_t u32Width;               // picture width
    uint32_t u32Height;              // picture height
    uint32_t u32AudioFormat;         // format tag of the audio stream
    uint32_t u32AudioChannels;       // 0: no audio stream
    uint32_t u32AudioRate;           // samples per second
    uint32_t u32AudioBits;           // kept, never written
    uint32_t u32AudioBytes;          // audio payload bytes written
    int32_t iHeaderSize;             // write: 512; read: position of the hdrl type word
    int32_t iHdrlSize;               // read: hdrl list size
    int32_t iMoviDataSize;  // write: bytes of all movi chunks; read: position after the movi type word
    int32_t iMoviSize;      // read: movi list size
    int32_t iIndexSize;     // write: bytes in the temporary index; read: position of the idx1 data
    int32_t iIdx1Size;      // read: idx1 size
};

// A zeroed context in the given mode with the defaults (frame rate 25,
// header size 512, no files open).
AviContext *AviCreateContext(int mode);

// Opens path for the context's mode: the temporary index file beside it and
// the AVI file (write: created or emptied; read: for reading only). What
// comes next in the file is the writer's or the reader's business. Returns 0
// or -1 (nothing left open).
int AviOpen(AviContext *ctx, const char *path);

// Closes the files and removes the temporary index file.
void AviClose(AviContext *ctx);

// Closes as AviClose and frees the context. 0, or -1 for a null context.
int AviRelease(AviContext *ctx);

// File helpers over FileIo(), shared by the writer and the reader.
// Bytes actually read (fewer at the end of the file or on an error).
int AviReadSome(int fd, void *buf, int length);
// True when all length bytes were written.
bool AviWriteAll(int fd, const void *buf, int length);
// The current position, or -1.
int64_t AviTell(int fd);
// Moves by offset from the current position; false on failure.
bool AviSkip(int fd, int64_t offset);
