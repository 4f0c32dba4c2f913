// The tables of dialogues, as they are and with a byte in each call of the platform.

#include <algorithm>
#include <cctype>
#include <utility>

#include "tables.h"

namespace dialogue {
namespace {

class table_case : public testing::Test {
 public:
  table_case(std::string file, const dialogue_case& what) : m_file(std::move(file)), m_case(what) {}

  void TestBody() override {
    for (const case_row& row : m_case.rows) {
      for (const bool is_sliced : {false, true}) {
        if (is_sliced && !may_be_sliced(row)) continue;
        SCOPED_TRACE(m_file + ":" + std::to_string(row.line) + (is_sliced ? ", sliced" : ""));
        const auto player = device::make(m_case.speaks);
        if (is_sliced) player->net.recv_limit(1);
        if (is_sliced) player->net.send_limit(7);
        player->play(row);
      }
    }
  }

 private:
  // Not one that counts calls or would take long.
  static bool may_be_sliced(const case_row& row) {
    return std::all_of(row.statements.begin(), row.statements.end(), [](const statement& one) {
      static const std::set<std::string> counting = {"fail", "limit", "sends", "wire"};
      return counting.count(one.verb) == 0 && expand(one.rest).size() < 20000;
    });
  }

  std::string m_file;
  const dialogue_case& m_case;
};

}  // namespace

const std::vector<table>& tables() {
  static const std::vector<table> all = [] {
    std::vector<table> read;
    for (const char* file : {"smtp", "login", "mail", "pop3", "received"})
      read.push_back({file, read_cases(std::string(TAV_CASES) + "/" + file + ".cases")});
    return read;
  }();
  return all;
}

std::string test_name(const dialogue_case& what) {
  std::string name = what.name;
  for (char& c : name)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  return name;
}

void add_tables() {
  for (const table& one : tables()) {
    std::string suite = one.file;
    suite[0] = static_cast<char>(std::toupper(suite[0]));
    for (const dialogue_case& what : one.cases) {
      testing::RegisterTest(
          suite.c_str(), test_name(what).c_str(), nullptr, nullptr, __FILE__, __LINE__,
          [&]() -> testing::Test* { return new table_case(one.file + ".cases", what); });
    }
  }
}

}  // namespace dialogue

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  try {
    dialogue::add_tables();
    dialogue::add_storms();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return RUN_ALL_TESTS();
}
