// MAGIKA archive line templates and line dates, decoded without the link.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace mcd {
namespace magika {

// One field of an archive line as the template names it.
struct Field {
  std::string name;
  int size;
};

// The fields of a template for the archive type (4 hourly, 5 daily); false (and why)
// when a name is unknown.
bool ParseTemplate(const std::string& text, int type, std::vector<Field>& fields, std::string& why);
// The record time of a line (DATE at 00:00, plus HOUR for hourly lines); -1 when the
// date is not valid BCD or names no local time.
time_t LineTime(const std::vector<Field>& fields, const uint8_t* line, int type);

}  // namespace magika
}  // namespace mcd
