#include "qr_code.h"

#include <qrencode.h>

#include <memory>

namespace tavmail {

namespace {

constexpr int kMargin = 2;  // modules around it, so that readers find it

// Black on white, whatever the terminal's colours are.
constexpr char kColours[] = "\033[30;107m";
constexpr char kNoColours[] = "\033[0m";

bool is_dark(const QRcode& code, int row, int column) {
  return row >= 0 && column >= 0 && row < code.width && column < code.width &&
         (code.data[row * code.width + column] & 1) != 0;
}

// Two rows are one line of the terminal, whose characters are twice as high as wide.
std::string line_of(const QRcode& code, int row) {
  std::string line = kColours;
  for (int column = -kMargin; column < code.width + kMargin; ++column) {
    const bool upper = is_dark(code, row, column);
    const bool lower = is_dark(code, row + 1, column);
    line += upper && lower ? "█" : upper ? "▀" : lower ? "▄" : " ";
  }
  return line + kNoColours + "\n";
}

}  // namespace

std::string qr_code(const std::string& text, int columns) {
  const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
      QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_L), QRcode_free);
  if (!code || code->width + 2 * kMargin > columns) return {};
  std::string lines;
  for (int row = -kMargin; row < code->width + kMargin; row += 2) lines += line_of(*code, row);
  return lines;
}

}  // namespace tavmail
