#pragma once
// Output for people: aligned columns, colour only on a terminal (never with
// NO_COLOR or --no-color), errors on standard error.
#include <string>
#include <vector>

struct cell {
    std::string text;
    const char* colour = nullptr; // SGR code such as "32", or null
};

// Decided once at start-up from the flag, NO_COLOR and the terminal.
void output_init(bool no_color_flag);
bool colour_on();

// Prints rows under a header, each column as wide as its widest cell.
void print_table(const std::vector<std::string>& header, const std::vector<std::vector<cell>>& rows);

// "vantrelctl: message" on standard error, on a line of its own. Pass
// after_library when the client library may have left its diagnostic line
// open.
void print_error(const std::string& message, bool after_library = false);

// Colour of a state name for the status table.
const char* state_colour(const std::string& state);
