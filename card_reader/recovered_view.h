// Putting a rebuilt index to use (card_reader/card_recovery.h gives the records):
//   - the read-only view: a file layer over the one in force through which
//     the card's index, event file and key-frame tables read as rebuilt,
//     held in memory; every reader of the card works on it unchanged, and
//     none of those files can be opened for writing while it is installed;
//   - a copy of the rebuilt files in a directory of their own;
//   - the rebuilt records written into the card's own files in place, after
//     a backup of the old index: only bytes that differ are written, no file
//     is created, grown or shortened, and the stream data is never touched.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "card_reader/card_recovery.h"

// Installs the view of the card directory (ending with '/') over the file
// layer in force. One view at a time.
void RecoveredViewInstall(const std::string &cardDir, const std::vector<CardFilePatches> &patches);
// Restores the layer that was in force before.
void RecoveredViewRemove();

// Copies the card's index000.bin and event000.bin into dir (created; it must
// not exist yet). 0, or -1 with the reason.
int RecoveryBackup(const std::string &cardDir, const std::string &dir, std::string *why);

// Writes index000.bin and event000.bin as rebuilt into dir (created if
// missing), and for every media file whose key-frame table differs from the
// rebuilt one "hiNNNNNN.mp4.keyframes" with the table's entries. *written
// gets the names. 0, or -1 with the reason.
int RecoveryWriteOutput(const std::string &cardDir, const std::vector<CardFilePatches> &patches,
                        const std::string &dir, std::vector<std::string> *written, std::string *why);

// 0 when every file of the patches is on the card and long enough for its
// records (nothing is ever grown), else -1 with the reason.
int RecoveryCheckInPlace(const std::string &cardDir, const std::vector<CardFilePatches> &patches,
                         std::string *why);

// Writes the patches that differ from the card into the card's files in
// place: the key-frame tables first, then the event file, the index last
// (its header after its records). Every file is checked for size before any
// byte is written. The bytes written, or -1 with the reason.
int64_t RecoveryWriteInPlace(const std::string &cardDir, const std::vector<CardFilePatches> &patches,
                             std::string *why);
