#include "FrameWriter.h"

#include "LxFormat.h"
#include "LxVideoRenderer.h"

#include <cstdio>

namespace {

uint32_t crc32(const uint8_t* data, size_t n, uint32_t crc = 0) {
    static uint32_t table[256];
    static bool ready = false;
    if (!ready) {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            table[i] = c;
        }
        ready = true;
    }
    crc = ~crc;
    for (size_t i = 0; i < n; ++i) {
        crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    }
    return ~crc;
}

void put32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(v >> shift));
    }
}

void chunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& data) {
    put32(png, static_cast<uint32_t>(data.size()));
    std::vector<uint8_t> body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    png.insert(png.end(), body.begin(), body.end());
    put32(png, crc32(body.data(), body.size()));
}

// Converts one frame's pixels to RGB. The 32-bit layouts are B,G,R,x (LxPixel32) and
// R,G,B,x (LxPixel32Alt); the 24-bit ones B,G,R and R,G,B; 16-bit is 5-6-5.
bool toRgb(LxVideoFrame* f, std::vector<uint8_t>* rgb) {
    const int w = f->getWidth();
    const int h = f->getHeight();
    const LxPixelFormat_s pf = f->getPixelFormat();
    const int bpp = static_cast<int>(LxVideoFormat::getBytesPerPixel(pf));
    const uint8_t* p = f->getPixelData();
    if (w <= 0 || h <= 0 || p == nullptr) {
        return false;
    }
    rgb->resize(static_cast<size_t>(w) * h * 3);
    for (int i = 0; i < w * h; ++i) {
        const uint8_t* s = p + static_cast<size_t>(i) * bpp;
        uint8_t* d = &(*rgb)[static_cast<size_t>(i) * 3];
        switch (pf) {
            case LxPixel32:
            case LxPixel24:
                d[0] = s[2], d[1] = s[1], d[2] = s[0];
                break;
            case LxPixel32Alt:
            case LxPixel24Alt:
                d[0] = s[0], d[1] = s[1], d[2] = s[2];
                break;
            case LxPixel16: {
                const uint16_t v = static_cast<uint16_t>(s[0] | (s[1] << 8));
                d[0] = static_cast<uint8_t>((v >> 11) << 3),
                d[1] = static_cast<uint8_t>(((v >> 5) & 63) << 2), d[2] = static_cast<uint8_t>((v & 31) << 3);
                break;
            }
            default:
                d[0] = d[1] = d[2] = s[0];
        }
    }
    return true;
}

}  // namespace

bool writePng(const std::string& path, int width, int height, const std::vector<uint8_t>& rgb) {
    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> ihdr;
    put32(ihdr, static_cast<uint32_t>(width));
    put32(ihdr, static_cast<uint32_t>(height));
    ihdr.insert(ihdr.end(), {8, 2, 0, 0, 0});  // 8-bit RGB
    chunk(png, "IHDR", ihdr);

    // zlib stream of stored blocks over the filtered rows (filter 0 per row).
    std::vector<uint8_t> raw;
    const size_t row = static_cast<size_t>(width) * 3;
    for (int y = 0; y < height; ++y) {
        raw.push_back(0);
        raw.insert(raw.end(), rgb.begin() + static_cast<long>(y * row),
                   rgb.begin() + static_cast<long>((y + 1) * row));
    }
    std::vector<uint8_t> z = {0x78, 0x01};
    for (size_t at = 0; at < raw.size() || raw.empty(); at += 65535) {
        const size_t n = raw.size() - at < 65535 ? raw.size() - at : 65535;
        z.push_back(at + n >= raw.size() ? 1 : 0);
        z.push_back(static_cast<uint8_t>(n & 0xFF));
        z.push_back(static_cast<uint8_t>(n >> 8));
        z.push_back(static_cast<uint8_t>(~n & 0xFF));
        z.push_back(static_cast<uint8_t>((~n >> 8) & 0xFF));
        z.insert(z.end(), raw.begin() + static_cast<long>(at), raw.begin() + static_cast<long>(at + n));
        if (raw.empty()) {
            break;
        }
    }
    uint32_t a = 1, b = 0;
    for (uint8_t v : raw) {
        a = (a + v) % 65521;
        b = (b + a) % 65521;
    }
    put32(z, (b << 16) | a);
    chunk(png, "IDAT", z);
    chunk(png, "IEND", {});
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = std::fwrite(png.data(), 1, png.size(), f) == png.size();
    return std::fclose(f) == 0 && ok;
}

FrameWriter::FrameWriter(const std::string& directory, int clipIndex)
    : directory_(directory), clip_(clipIndex) {}

void FrameWriter::paint(LxVideoRenderer* renderer, const LxTime& mediaTime) {
    if (renderer == nullptr) {
        return;
    }
    LxFrame* frame = renderer->attachFrameFromTime(mediaTime, LxTime::zero());
    if (frame == nullptr) {
        return;  // nothing new: the browser keeps showing its previous picture
    }
    LxVideoFrame* video = dynamic_cast<LxVideoFrame*>(frame);
    std::vector<uint8_t> rgb;
    const bool ok = video != nullptr && toRgb(video, &rgb);
    const int w = ok ? video->getWidth() : 0;
    const int h = ok ? video->getHeight() : 0;
    renderer->releaseFrame(frame);
    if (!ok) {
        return;
    }
    char name[64];
    std::snprintf(name, sizeof name, "/frame-%d-%05d.png", clip_, painted_);
    writePng(directory_ + name, w, h, rgb);
    ++painted_;
    // A thumbnail at most 160 pixels wide for the contact sheet.
    const int step = w > 160 ? (w + 159) / 160 : 1;
    Thumb t{w / step, h / step, {}};
    for (int y = 0; y < t.height; ++y) {
        for (int x = 0; x < t.width; ++x) {
            const size_t s = (static_cast<size_t>(y * step) * w + static_cast<size_t>(x * step)) * 3;
            t.rgb.insert(t.rgb.end(), rgb.begin() + static_cast<long>(s),
                         rgb.begin() + static_cast<long>(s + 3));
        }
    }
    thumbs_.push_back(std::move(t));
}

bool FrameWriter::writeContactSheet(const std::string& path) const {
    if (thumbs_.empty()) {
        return false;
    }
    const int columns = 8;
    const int cw = thumbs_[0].width;
    const int ch = thumbs_[0].height;
    const int rows = (static_cast<int>(thumbs_.size()) + columns - 1) / columns;
    const int width = cw * columns;
    const int height = ch * rows;
    std::vector<uint8_t> sheet(static_cast<size_t>(width) * height * 3, 0);
    for (size_t i = 0; i < thumbs_.size(); ++i) {
        const Thumb& t = thumbs_[i];
        const int ox = static_cast<int>(i % columns) * cw;
        const int oy = static_cast<int>(i / columns) * ch;
        for (int y = 0; y < t.height && y < ch; ++y) {
            for (int x = 0; x < t.width && x < cw; ++x) {
                for (int c = 0; c < 3; ++c) {
                    sheet[(static_cast<size_t>(oy + y) * width + ox + x) * 3 + c] =
                        t.rgb[(static_cast<size_t>(y) * t.width + x) * 3 + c];
                }
            }
        }
    }
    return writePng(path, width, height, sheet);
}
