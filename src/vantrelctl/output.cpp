#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {
bool colour = false;
}

void output_init(bool no_color_flag)
{
    const char* no_color = getenv("NO_COLOR");
    colour = !no_color_flag && !(no_color && *no_color) && isatty(STDOUT_FILENO);
}

bool colour_on() { return colour; }

void print_table(const std::vector<std::string>& header, const std::vector<std::vector<cell>>& rows)
{
    std::vector<std::size_t> width(header.size());
    for (std::size_t c = 0; c < header.size(); ++c) width[c] = header[c].size();
    // The last cell of a short row (a host's error) spans the rest of the line.
    for (const auto& row : rows)
        for (std::size_t c = 0; c < row.size() && c < width.size(); ++c)
            if (c + 1 < row.size() || row.size() == header.size())
                width[c] = std::max(width[c], row[c].text.size());
    auto print_row = [&](auto text_of, auto colour_of, std::size_t count) {
        std::string line;
        for (std::size_t c = 0; c < count; ++c) {
            std::string text = text_of(c);
            const char* sgr = colour ? colour_of(c) : nullptr;
            if (sgr) line += std::string("\033[") + sgr + "m" + text + "\033[0m";
            else line += text;
            // The last column is not padded, so lines carry no trailing blanks.
            if (c + 1 < count) line += std::string(width[c] - text.size() + 2, ' ');
        }
        puts(line.c_str());
    };
    print_row([&](std::size_t c) { return header[c]; },
              [&](std::size_t) -> const char* { return "1"; }, header.size());
    for (const auto& row : rows)
        print_row([&](std::size_t c) { return row[c].text; },
                  [&](std::size_t c) { return row[c].colour; }, std::min(row.size(), header.size()));
}

void print_error(const std::string& message, bool after_library)
{
    fflush(stdout);
    fprintf(stderr, "%svantrelctl: %s\n", after_library ? "\n" : "", message.c_str());
}

const char* state_colour(const std::string& state)
{
    if (state == "running") return "32";
    if (state == "stopped") return nullptr;
    if (state == "starting" || state == "stopping") return "33";
    return "31";
}
