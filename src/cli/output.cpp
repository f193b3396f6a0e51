#include "cli/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>

#include "base/file_io.h"
#include "base/unicode.h"

namespace veerline::cli {

std::string printable(std::string_view text) {
    return unicode::escapingControlCharacters(text);
}

std::string curlyQuoted(std::string_view text) {
    return "\u201C" + printable(text) + "\u201D";
}

std::string swatch(ProfileColor color, bool colour) {
    if (!colour) return "";
    auto rgb = profilecolor::rgb(color);
    return "\x1b[38;2;" + std::to_string(rgb.r) + ";" + std::to_string(rgb.g) + ";" + std::to_string(rgb.b) +
           "m\u25CF\x1b[0m ";
}

namespace {

// Width on screen: user-perceived characters outside "ESC [ ... final byte" sequences.
std::size_t visibleWidth(const std::string& text) {
    std::string visible;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
            i += 2;
            while (i < text.size() && !(text[i] >= 0x40 && text[i] <= 0x7E)) ++i;
            continue;
        }
        visible += text[i];
    }
    return unicode::characterCount(visible);
}

}  // namespace

Table::Table(std::vector<std::string> headings) {
    rows_.push_back(std::move(headings));
}

void Table::addRow(std::vector<std::string> cells) {
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], visibleWidth(row[column]));
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size()) line.append(widths[column] - visibleWidth(row[column]) + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out << line << "\n";
    }
}

namespace {

constexpr std::size_t kOutputBuffer = 4096;

// Length of a plain colour sequence (ESC [ digits and ";" m) at `pos`; 0 when there is none, and
// std::string::npos when the text ends before it could be told.
std::size_t colourSequenceLength(std::string_view text, std::size_t pos) {
    constexpr std::size_t longest = 32;
    for (std::size_t i = pos + 1; i < text.size() && i - pos < longest; ++i) {
        char c = text[i];
        if (i == pos + 1) {
            if (c != '[') return 0;
        } else if (c == 'm') {
            return i + 1 - pos;
        } else if (!((c >= '0' && c <= '9') || c == ';')) {
            return 0;
        }
    }
    return text.size() - pos < longest ? std::string::npos : 0;
}

// Whether the bytes from `pos` to the end of `text` begin a UTF-8 sequence that the next write
// may complete: cut in two, its second half would look like lone bytes, and 0x80 to 0x9F alone are
// escaped.
bool mayContinue(std::string_view text, std::size_t pos) {
    auto lead = static_cast<unsigned char>(text[pos]);
    const std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    if (length == 0 || lead > 0xF4 || text.size() - pos >= length) return false;
    for (std::size_t i = pos + 1; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return false;
    }
    return true;
}

}  // namespace

TerminalSafeOutput::int_type TerminalSafeOutput::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    pending_ += traits_type::to_char_type(c);
    if (pending_.size() >= kOutputBuffer) drain(false);
    return c;
}

std::streamsize TerminalSafeOutput::xsputn(const char* text, std::streamsize count) {
    pending_.append(text, static_cast<std::size_t>(count));
    if (pending_.size() >= kOutputBuffer) drain(false);
    return count;
}

int TerminalSafeOutput::sync() {
    drain(true);
    return error_ == 0 ? 0 : -1;
}

void TerminalSafeOutput::drain(bool everything) {
    std::string safe;
    safe.reserve(pending_.size());
    std::size_t pos = 0;
    std::size_t plainStart = 0;
    auto flushPlain = [&](std::size_t end) {
        safe += printable(std::string_view(pending_).substr(plainStart, end - plainStart));
    };
    while (pos < pending_.size()) {
        char c = pending_[pos];
        if (c == '\n' || c == '\t') {
            flushPlain(pos);
            safe += c;
            plainStart = ++pos;
            continue;
        }
        if (c == '\x1b') {
            std::size_t length = colourSequenceLength(pending_, pos);
            if (length == std::string::npos && !everything) break;
            if (length != 0 && length != std::string::npos) {
                flushPlain(pos);
                safe.append(pending_, pos, length);
                pos += length;
                plainStart = pos;
                continue;
            }
        }
        if (!everything && mayContinue(pending_, pos)) break;
        ++pos;
    }
    flushPlain(pos);
    pending_.erase(0, pos);
    if (error_ == 0) error_ = writeAll(fd_, safe);
}

bool confirm(const std::string& question) {
    std::cout << question << " [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer)) {
        std::cout << "\n";
        return false;
    }
    answer = unicode::trimmed(answer);
    return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

}  // namespace veerline::cli
