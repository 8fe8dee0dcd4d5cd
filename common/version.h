// The build's version, from the source tree's history when it was built.
// The daemon logs it first; the card tool prints it; the camera bundle
// carries it in its VERSION file.
#pragma once

const char *AVRecordVersion();
