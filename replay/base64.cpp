#include "replay/base64.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPad = '=';
constexpr size_t kGroup = 4;

int Sextet(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

std::string Base64Encode(const uint8_t *data, size_t size) {
    std::string text;
    text.reserve((size + 2) / 3 * kGroup);
    for (size_t i = 0; i < size; i += 3) {
        uint32_t bits = data[i] << 16;
        if (i + 1 < size) bits |= data[i + 1] << 8;
        if (i + 2 < size) bits |= data[i + 2];
        text += kAlphabet[(bits >> 18) & 0x3F];
        text += kAlphabet[(bits >> 12) & 0x3F];
        text += i + 1 < size ? kAlphabet[(bits >> 6) & 0x3F] : kPad;
        text += i + 2 < size ? kAlphabet[bits & 0x3F] : kPad;
    }
    return text;
}

bool Base64Decode(std::string_view text, std::string *out) {
    out->clear();
    if (text.size() % kGroup != 0) return false;
    for (size_t i = 0; i < text.size(); i += kGroup) {
        bool last = i + kGroup == text.size();
        uint32_t bits = 0;
        int pads = 0;
        for (size_t j = 0; j < kGroup; ++j) {
            char c = text[i + j];
            int value = Sextet(c);
            if (c == kPad && last && j >= 2) {
                ++pads;
                value = 0;
            } else if (value < 0 || pads > 0) {
                return false;
            }
            bits = (bits << 6) | static_cast<uint32_t>(value);
        }
        out->push_back(static_cast<char>(bits >> 16));
        if (pads < 2) out->push_back(static_cast<char>(bits >> 8));
        if (pads < 1) out->push_back(static_cast<char>(bits));
    }
    return true;
}
