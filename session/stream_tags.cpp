// The tags and the header frames that real files carry around their audio: ID3v2 in front, APE,
// Lyrics3 and a footed ID3v2 at the tail (beside the 128-byte tag that open_stream reads itself),
// and the Xing/Info (with the LAME extension) or VBRI frame in place of the first audio frame.
//
// All sizes come from the file and are bounded by it: a tag that claims more than the file holds is
// taken for no tag.
#include <algorithm>
#include <cstring>
#include <vector>

#include "session/stream.h"

namespace session {

namespace {

uint32_t be16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }
uint32_t be32(const uint8_t* p) { return be16(p) << 16 | be16(p + 2); }
uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
// Four 7-bit bytes, most significant first; -1 when a byte has its top bit set.
int64_t syncsafe(const uint8_t* p) {
  if ((p[0] | p[1] | p[2] | p[3]) & 0x80) return -1;
  return int64_t(p[0]) << 21 | int64_t(p[1]) << 14 | int64_t(p[2]) << 7 | p[3];
}

bool read_at(std::FILE* f, int64_t at, uint8_t* to, size_t n) {
  return at >= 0 && std::fseek(f, long(at), SEEK_SET) == 0 && std::fread(to, 1, n, f) == n;
}

// The size of an ID3v2 tag with its 10-byte head (and footer) from the head's bytes, or 0.
int64_t id3v2_size(const uint8_t* head, const char* mark) {
  if (std::memcmp(head, mark, 3) != 0 || head[3] < 2 || head[3] > 4 || head[4] == 0xFF) return 0;
  const int64_t body = syncsafe(head + 6);
  if (body < 0) return 0;
  return 10 + body + ((head[5] & 0x10) ? 10 : 0);
}

void append_utf8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | c >> 6);
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | c >> 12);
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | c >> 18);
    out += char(0x80 | ((c >> 12) & 0x3F));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

// A text frame's body (encoding byte, then the text) as UTF-8, up to its first terminator.
std::string frame_text(const uint8_t* p, size_t n) {
  std::string out;
  if (n < 1) return out;
  const uint8_t encoding = p[0];
  ++p;
  --n;
  if (encoding == 0 || encoding == 3) {
    for (size_t i = 0; i < n && p[i]; ++i) {
      if (encoding == 3) {
        out += char(p[i]);
      } else {
        append_utf8(out, p[i]);  // ISO 8859-1
      }
    }
    return out;
  }
  if (encoding != 1 && encoding != 2) return out;
  bool big = encoding == 2;
  size_t i = 0;
  if (encoding == 1 && n >= 2) {
    if (p[0] == 0xFF && p[1] == 0xFE) i = 2;
    if (p[0] == 0xFE && p[1] == 0xFF) big = true, i = 2;
  }
  for (; i + 1 < n; i += 2) {
    uint32_t c = big ? be16(p + i) : uint32_t(p[i]) | uint32_t(p[i + 1]) << 8;
    if (c == 0) break;
    if (c >= 0xD800 && c < 0xDC00 && i + 3 < n) {
      uint32_t low = big ? be16(p + i + 2) : uint32_t(p[i + 2]) | uint32_t(p[i + 3]) << 8;
      if (low >= 0xDC00 && low < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    append_utf8(out, c);
  }
  return out;
}

// Undoes unsynchronisation: FF 00 stands for FF.
void resync(std::vector<uint8_t>& b) {
  size_t to = 0;
  for (size_t i = 0; i < b.size(); ++i) {
    b[to++] = b[i];
    if (b[i] == 0xFF && i + 1 < b.size() && b[i + 1] == 0) ++i;
  }
  b.resize(to);
}

}  // namespace

int32_t skip_id3v2(std::FILE* f, int32_t at, int32_t file_size) {
  // Several tags may follow each other; each is skipped by its own size.
  for (;;) {
    uint8_t head[10];
    if (!read_at(f, at, head, sizeof head)) return at;
    const int64_t size = id3v2_size(head, "ID3");
    if (size == 0 || at + size > file_size) return at;
    at += int32_t(size);
  }
}

int32_t strip_tail_tags(std::FILE* f, int32_t start, int32_t end) {
  for (;;) {
    uint8_t foot[32];
    // APE: a 32-byte footer whose size counts the items and the footer, plus a header if flagged.
    if (end - start >= 32 && read_at(f, end - 32, foot, 32) && std::memcmp(foot, "APETAGEX", 8) == 0) {
      const int64_t size = int64_t(le32(foot + 12)) + ((le32(foot + 20) & 0x80000000u) ? 32 : 0);
      if (size >= 32 && size <= end - start) {
        end -= int32_t(size);
        continue;
      }
    }
    // Lyrics3 v2: a six-digit size of the tag less its 15-byte trailer, then "LYRICS200".
    if (end - start >= 15 && read_at(f, end - 15, foot, 15) && std::memcmp(foot + 6, "LYRICS200", 9) == 0) {
      int64_t size = 0;
      bool digits = true;
      for (int i = 0; i < 6; ++i) {
        digits = digits && foot[i] >= '0' && foot[i] <= '9';
        size = size * 10 + (foot[i] - '0');
      }
      uint8_t begin[11];
      if (digits && size + 15 <= end - start && read_at(f, end - 15 - size, begin, 11) &&
          std::memcmp(begin, "LYRICSBEGIN", 11) == 0) {
        end -= int32_t(size + 15);
        continue;
      }
    }
    // Lyrics3 v1: "LYRICSBEGIN" within the 5100 bytes before "LYRICSEND".
    if (end - start >= 20 && read_at(f, end - 9, foot, 9) && std::memcmp(foot, "LYRICSEND", 9) == 0) {
      const int32_t span = std::min<int32_t>(5100 + 9, end - start);
      std::vector<uint8_t> b(size_t(span), 0);
      if (read_at(f, end - span, b.data(), b.size())) {
        int32_t found = -1;
        for (int32_t i = span - 9 - 11; i >= 0 && found < 0; --i)
          if (std::memcmp(b.data() + i, "LYRICSBEGIN", 11) == 0) found = i;
        if (found >= 0) {
          end -= span - found;
          continue;
        }
      }
    }
    // An ID3v2 tag with a footer ("3DI") appended behind the audio.
    if (end - start >= 20 && read_at(f, end - 10, foot, 10)) {
      const int64_t size = id3v2_size(foot, "3DI");
      if (size > 0 && size <= end - start) {
        end -= int32_t(size);
        continue;
      }
    }
    return end;
  }
}

Id3v2Text read_id3v2_text(std::FILE* f, int32_t at) {
  Id3v2Text text;
  uint8_t head[10];
  if (!read_at(f, at, head, sizeof head)) return text;
  const int64_t size = id3v2_size(head, "ID3");
  if (size == 0 || size > (64 << 20)) return text;
  const int version = head[3];
  std::vector<uint8_t> body(size_t(syncsafe(head + 6)));
  if (!read_at(f, at + 10, body.data(), body.size())) return text;
  // Before 2.4 the whole tag is unsynchronised at once; 2.4 flags each frame.
  if (version < 4 && (head[5] & 0x80)) resync(body);
  size_t pos = 0;
  if (head[5] & 0x40) {
    // The extended header: its size counts itself in 2.4, not in 2.3.
    if (body.size() < 4) return text;
    const int64_t ext = version == 4 ? syncsafe(body.data()) : int64_t(be32(body.data())) + 4;
    if (ext < 0) return text;
    pos = size_t(ext);
  }
  const size_t id_bytes = version == 2 ? 3 : 4;
  const size_t head_bytes = version == 2 ? 6 : 10;
  while (pos + head_bytes <= body.size() && body[pos] != 0) {
    const uint8_t* h = body.data() + pos;
    int64_t n = version == 2   ? int64_t(h[3]) << 16 | int64_t(h[4]) << 8 | h[5]
                : version == 4 ? syncsafe(h + 4)
                               : int64_t(be32(h + 4));
    if (n < 0 || pos + head_bytes + size_t(n) > body.size()) break;
    std::vector<uint8_t> frame(h + head_bytes, h + head_bytes + n);
    // 2.4 frame flags: unsynchronised (bit 1) and a data-length indicator (bit 0) in front.
    bool skip_frame = false;
    if (version == 4) {
      if (h[9] & 0x0C) skip_frame = true;  // compressed or encrypted: not readable here
      if (h[9] & 0x02) resync(frame);
      if ((h[9] & 0x01) && frame.size() >= 4) frame.erase(frame.begin(), frame.begin() + 4);
    } else if (version == 3 && (h[9] & 0xC0)) {
      skip_frame = true;
    }
    const std::string id(reinterpret_cast<const char*>(h), id_bytes);
    if (!skip_frame) {
      if (id == "TIT2" || id == "TT2") text.title = frame_text(frame.data(), frame.size());
      if (id == "TPE1" || id == "TP1") text.artist = frame_text(frame.data(), frame.size());
      if (id == "TALB" || id == "TAL") text.album = frame_text(frame.data(), frame.size());
    }
    pos += head_bytes + size_t(n);
  }
  return text;
}

bool read_vbr_frame(const uint8_t* frame, int32_t length, const FrameHeader& h, VbrFrame& v) {
  v = VbrFrame{};
  if (h.layer_code != 1) return false;
  const int32_t x = header_and_side_info_bytes(h);
  if (x + 8 <= length && (std::memcmp(frame + x, "Xing", 4) == 0 || std::memcmp(frame + x, "Info", 4) == 0)) {
    v.kind = frame[x] == 'X' ? VBR_XING : VBR_INFO;
    const uint32_t flags = be32(frame + x + 4);
    int32_t p = x + 8;
    if (flags & 1) {
      if (p + 4 > length) return false;
      v.frames = int32_t(be32(frame + p) & 0x7FFFFFFF);
      p += 4;
    }
    if (flags & 2) {
      if (p + 4 > length) return false;
      v.bytes = int32_t(be32(frame + p) & 0x7FFFFFFF);
      p += 4;
    }
    if (flags & 4) {
      if (p + 100 > length) return false;
      std::memcpy(v.toc, frame + p, 100);
      v.has_toc = 1;
      p += 100;
    }
    if (flags & 8) p += 4;
    // The encoder's extension: nine bytes of its name, then its fields; the delay and padding are
    // two 12-bit numbers 21 bytes in.
    if (p + 24 <= length && (std::memcmp(frame + p, "LAME", 4) == 0 || std::memcmp(frame + p, "Lavf", 4) == 0 ||
                             std::memcmp(frame + p, "Lavc", 4) == 0)) {
      const uint8_t* d = frame + p + 21;
      v.delay = int32_t(d[0]) << 4 | d[1] >> 4;
      v.padding = int32_t(d[1] & 15) << 8 | d[2];
    }
    return true;
  }
  // VBRI stands 32 bytes behind the header whatever the mode.
  if (length >= 36 + 26 && std::memcmp(frame + 36, "VBRI", 4) == 0) {
    const uint8_t* p = frame + 36;
    v.kind = VBR_VBRI;
    v.bytes = int32_t(be32(p + 10) & 0x7FFFFFFF);
    v.frames = int32_t(be32(p + 14) & 0x7FFFFFFF);
    const int32_t entries = int32_t(be16(p + 18));
    const int32_t scale = int32_t(be16(p + 20));
    const int32_t entry_bytes = int32_t(be16(p + 22));
    const int32_t per_entry = int32_t(be16(p + 24));
    // The table: each entry the bytes of per_entry frames, divided by scale. It becomes the same
    // hundred points as a Xing table, in 256ths of the byte count.
    if (entries < 1 || entry_bytes < 1 || entry_bytes > 4 || per_entry < 1 || v.frames < 1 || v.bytes < 1 ||
        36 + 26 + entries * entry_bytes > length)
      return true;
    std::vector<int64_t> offsets(size_t(entries) + 1, 0);
    for (int32_t i = 0; i < entries; ++i) {
      int64_t e = 0;
      for (int32_t b = 0; b < entry_bytes; ++b) e = e << 8 | p[26 + i * entry_bytes + b];
      offsets[size_t(i) + 1] = offsets[size_t(i)] + e * scale;
    }
    for (int32_t pct = 0; pct < 100; ++pct) {
      const double frame_at = double(pct) * v.frames / 100.0 / per_entry;
      const int32_t i = std::min<int32_t>(int32_t(frame_at), entries - 1);
      const double at =
          double(offsets[size_t(i)]) + (frame_at - i) * double(offsets[size_t(i) + 1] - offsets[size_t(i)]);
      v.toc[pct] = uint8_t(std::min(255.0, at * 256.0 / v.bytes));
    }
    v.has_toc = 1;
    return true;
  }
  return false;
}

}  // namespace session
