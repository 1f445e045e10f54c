// SPDX-License-Identifier: Apache-2.0

// The program as its users meet it: command lines in, exit statuses and texts out.
#include "tests/apps/program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "clock/ntp_clock.h"
#include "platform/config/base_cfg.h"
#include "testing/loopback_udp.h"

namespace skorra {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST(ProgramTest, WrongUsageEndsWithStatus64AndTheRemedy) {
  struct Case {
    const char* what;
    Arguments arguments;
    const char* message;
  };
  const Case cases[] = {
      {"no command", {}, "A subcommand is required"},
      {"an unknown command", {"synchronise"}, "there is no command 'synchronise'"},
      {"no server", {"sync"}, "SERVER is required"},
      {"an unknown option", {"sync", "--fast", "127.0.0.1"}, "--fast"},
      {"no time at all", {"sync", "127.0.0.1", "--timeout", "0"}, "must be greater than 0 and at most 3600"},
      {"a negative time", {"sync", "127.0.0.1", "--timeout", "-1"}, "must be greater than 0"},
      {"more than an hour", {"sync", "127.0.0.1", "--timeout", "3600.1"}, "at most 3600"},
      {"a time that is no number", {"sync", "127.0.0.1", "--timeout", "nan"}, "\"nan\" is not valid"},
      {"a number with a unit", {"sync", "127.0.0.1", "--timeout", "5s"}, "\"5s\" is not valid"},
      {"an option without its value", {"sync", "127.0.0.1", "--timeout"}, "--timeout"},
      {"a log level beyond the last",
       {"sync", "127.0.0.1", "--log-level", "3"},
       "\"3\" is not valid: must be a whole number from 0 to 2"},
      {"half a log level", {"sync", "127.0.0.1", "--log-level", "0.5"}, "\"0.5\" is not valid"},
      {"a port beyond the last", {"sync", "host:99999"}, "bad SERVER 'host:99999': "},
      {"a bracket left open", {"sync", "[::1"}, "bad SERVER '[::1': "},
      {"an empty server", {"sync", ""}, "bad SERVER '': "},
      {"a name with a space", {"sync", "time server"}, "bad SERVER 'time server': "},
      {"one malformed server among good ones",
       {"sync", "127.0.0.1", "a:b:c:d:z"},
       "bad SERVER 'a:b:c:d:z': "},
      {"a share above all", {"serve", "--loss", "1.5"}, "must be from 0 to 1"},
      {"a negative delay", {"serve", "--delay", "-1"}, "from 0"},
      {"a name to listen on", {"serve", "--listen", "localhost:0"}, "is not an IP address"},
      {"a port beyond the last to listen on", {"serve", "--listen", "127.0.0.1:99999"}, "bad --listen"},
      {"an empty address to listen on", {"serve", "--listen", ":0"}, "bad --listen"},
      {"a seed that is no number", {"serve", "--seed", "x"}, "--seed"},
      {"an argument too many", {"demo", "127.0.0.1"}, "127.0.0.1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const ChildExit exit = RunProgram(c.arguments);
    EXPECT_EQ(exit.status, 64);
    EXPECT_THAT(exit.out, IsEmpty());
    EXPECT_THAT(exit.err, HasSubstr(c.message));
  }
}

TEST(ProgramTest, AnUnknownOptionIsAnErrorWithItsNameAndTheRemedy) {
  struct Case {
    const char* what;
    Arguments arguments;
    const char* option;
    const char* help;
  };
  const Case cases[] = {
      {"a digit, which looks like a number", {"sync", "-4", "localhost"}, "-4", "sync --help"},
      {"a digit after the server", {"sync", "localhost", "-6"}, "-6", "sync --help"},
      {"a number", {"sync", "-4.5", "localhost"}, "-4.5", "sync --help"},
      {"a letter", {"sync", "-x", "localhost"}, "-x", "sync --help"},
      {"a word", {"sync", "--nope", "localhost"}, "--nope", "sync --help"},
      {"a word and its value", {"sync", "localhost", "--nope=5"}, "--nope=5", "sync --help"},
      {"a word without a server", {"sync", "--nope"}, "--nope", "sync --help"},
      {"an option in the servers' place", {"sync", "--", "-4"}, "-4", "sync --help"},
      {"a digit to serve", {"serve", "-4"}, "-4", "serve --help"},
      {"a letter to serve", {"serve", "-x"}, "-x", "serve --help"},
      {"a word to serve", {"serve", "--nope"}, "--nope", "serve --help"},
      {"a digit to demo", {"demo", "-4"}, "-4", "demo --help"},
      {"a letter to demo", {"demo", "-x"}, "-x", "demo --help"},
      {"a word to demo", {"demo", "--nope"}, "--nope", "demo --help"},
      {"a digit without a command", {"-4"}, "-4", "skorra-ntp --help"},
      {"a word without a command", {"--nope"}, "--nope", "skorra-ntp --help"},
      {"a word before the command", {"--nope", "demo"}, "--nope", "demo --help"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const ChildExit exit = RunProgram(c.arguments);
    EXPECT_EQ(exit.status, 64);
    EXPECT_THAT(exit.out, IsEmpty());
    EXPECT_THAT(exit.err, HasSubstr("there is no option '" + std::string(c.option) + "'"));
    EXPECT_THAT(exit.err, HasSubstr(c.help));
  }
}

TEST(ProgramTest, ASeedIsAWholeNumberOf64Bits) {
  for (const char* seed : {"-1", "", " 1", "+1", "1.5", "0x10", "1e3", "x", "18446744073709551616",
                           "99999999999999999999999999"}) {
    SCOPED_TRACE(seed);
    const ChildExit exit = RunProgram({"serve", "--listen", "192.0.2.1:0", "--seed", seed});
    EXPECT_EQ(exit.status, 64);
    EXPECT_THAT(exit.err,
                HasSubstr("--seed: \"" + std::string(seed) +
                          "\" is not valid: must be a whole number from 0 to 18446744073709551615"));
  }
  for (const auto& [seed, shown] : {std::pair("0", "seed 0\n"),
                                    {"010", "seed 10\n"},
                                    {"18446744073709551615", "seed 18446744073709551615\n"}}) {
    Server server({"--seed", seed});
    EXPECT_THAT(server.End(SIGTERM).out, HasSubstr(shown));
  }
}

TEST(ProgramTest, EveryNumberRejectsAnEmptyTextAndOneThatIsTooLarge) {
  const Arguments options[] = {{"sync", "127.0.0.1", "--timeout"},
                               {"sync", "127.0.0.1", "--log-level"},
                               {"serve", "--offset"},
                               {"serve", "--delay"},
                               {"serve", "--jitter"},
                               {"serve", "--loss"},
                               {"serve", "--seed"}};
  for (Arguments arguments : options) {
    for (const char* value : {"", "1e999", "99999999999999999999999999"}) {
      arguments.push_back(value);
      SCOPED_TRACE(testing::PrintToString(arguments));
      const ChildExit exit = RunProgram(arguments);
      EXPECT_EQ(exit.status, 64);
      EXPECT_THAT(exit.err, HasSubstr("\"" + std::string(value) + "\" is not valid: must be "));
      arguments.pop_back();
    }
  }
}

TEST(ProgramTest, ANegativeNumberIsTheValueOfItsOption) {
  Server server({"--offset", "-3.25"});
  EXPECT_THAT(server.End(SIGTERM).out, HasSubstr("clock error -3.250000 s, "));
}

TEST(ProgramTest, TextFromOutsideIsShownWithItsControlCharactersEscaped) {
  const std::string evil = "a\x1b[31mb\x7f\xc2\x9b\xff\nc";
  const std::string shown = R"(a\x1b[31mb\x7f\xc2\x9b\xff\x0ac)";
  struct Case {
    const char* what;
    Arguments arguments;
    std::vector<std::string> environment;
    int status;
  };
  const Case cases[] = {
      {"a server", {"sync", evil}, {}, 64},
      {"an unknown option", {"sync", "localhost", "--" + evil}, {}, 64},
      {"an unknown option in a server's place", {"sync", "-4" + evil}, {}, 64},
      {"the value of an option", {"sync", "localhost", "--timeout", evil}, {}, 64},
      {"a seed", {"serve", "--seed", evil}, {}, 64},
      {"a command", {evil}, {}, 64},
      {"an argument too many", {"demo", evil}, {}, 64},
      {"an address to listen on", {"serve", "--listen", evil}, {}, 64},
      {"a configuration file",
       {"serve", "--listen", "192.0.2.1:0"},
       {"SKORRA_NTP_CONFIG=/nonexistent/" + evil},
       1},
      {"a configured number", {"serve", "--listen", "192.0.2.1:0"}, {"SKORRA_NTP_SYNC_INTERVAL=" + evil}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const ChildExit exit = RunProgram(c.arguments, c.environment);
    EXPECT_EQ(exit.status, c.status);
    EXPECT_THAT(exit.err, HasSubstr(shown));
    EXPECT_THAT(exit.err, Not(HasSubstr("\x1b")));
  }
}

TEST(ProgramTest, HelpTeachesWithExamples) {
  struct Case {
    Arguments arguments;
    const char* text;
  };
  for (const Case& c :
       {Case{{"--help"}, "SKORRA_NTP_CONFIG"}, Case{{"--help"}, "skorra-ntp sync ntp.example.org"},
        Case{{"sync", "--help"}, "skorra-ntp sync 192.0.2.1 '[2001:db8::1]:12300'"},
        Case{{"sync", "--help"}, "Exit status:"}, Case{{"--help"}, "74 standard output is full"},
        Case{{"sync", "--help"}, "  74  the report was lost"},
        Case{{"serve", "--help"}, "74 when standard output"},
        Case{{"demo", "--help"}, "74 when standard output"},
        Case{{"serve", "--help"}, "skorra-ntp serve --listen 127.0.0.1:12300"},
        Case{{"demo", "--help"}, "skorra-ntp demo"}, Case{{"--version"}, "skorra-ntp "}}) {
    const ChildExit exit = RunProgram(c.arguments);
    EXPECT_EQ(exit.status, 0);
    EXPECT_THAT(exit.out, HasSubstr(c.text));
    EXPECT_THAT(exit.err, IsEmpty());
  }
}

TEST(ProgramTest, TheHelpOfSyncNamesEveryReason) {
  const ChildExit exit = RunProgram({"sync", "--help"});
  for (int32_t number = 0; number <= static_cast<int32_t>(NtpSyncReason::kTimedOut); ++number) {
    EXPECT_THAT(exit.out, HasSubstr(NtpSyncReasonName(static_cast<NtpSyncReason>(number))));
  }
}

TEST(ProgramTest, TheHelpOfSyncNamesEveryAgreement) {
  const ChildExit exit = RunProgram({"sync", "--help"});
  for (int32_t number = 0; number <= static_cast<int32_t>(NtpClockAgreement::kOutvoted); ++number) {
    EXPECT_THAT(
        exit.out,
        HasSubstr("\n  " + std::string(NtpClockAgreementName(static_cast<NtpClockAgreement>(number))) + " "));
  }
}

TEST(ProgramTest, HelpExplainsEveryEntryOfTheConfiguration) {
  for (const char* command : {"--help", "sync"}) {
    const ChildExit exit = RunProgram({command, "--help"});
    const auto expect_shown = [&exit](const auto& entry) {
      EXPECT_THAT(exit.out,
                  HasSubstr(std::string(entry.environment_variable) + "\n      " + entry.meaning + " ("));
    };
    for (const config::NumberEntry* entry : config::BaseCfg().numbers()) {
      expect_shown(*entry);
    }
    for (const config::TextEntry* entry : config::BaseCfg().texts()) {
      expect_shown(*entry);
    }
  }
}

// The limits of a report in JSON hold the true offset, and the bound is their distance.
void ExpectLimitsAround(const nlohmann::json& json, int64_t true_offset_us) {
  const int64_t ntp_time_us = json["ntp_time_us"];
  const int64_t earliest_us = json["earliest_us"];
  const int64_t latest_us = json["latest_us"];
  const int64_t true_us = ntp_time_us - json["offset_us"].get<int64_t>() + true_offset_us;
  EXPECT_LE(earliest_us, true_us);
  EXPECT_GE(latest_us, true_us);
  EXPECT_EQ(json["error_bound_us"], std::max(latest_us - ntp_time_us, ntp_time_us - earliest_us));
  EXPECT_LE(json["error_estimate_us"], json["error_bound_us"]);
  EXPECT_GE(json["error_estimate_us"], 0);
}

TEST(ProgramTest, AServerWithAKnownErrorIsMeasured) {
  Server server({"--offset", "-12.5"});
  const ChildExit exit = RunProgram({"sync", server.name(), "--json"});
  EXPECT_EQ(exit.status, 0);
  EXPECT_THAT(exit.err, IsEmpty());
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], 0);
  EXPECT_EQ(json["message"], "success");
  EXPECT_NEAR(json["offset_us"].get<double>(), -12'500'000, 5000);
  EXPECT_GT(json["ntp_time_us"].get<int64_t>(), 0);
  EXPECT_EQ(json["reason"], "ok");
  EXPECT_EQ(json["status"], "synchronized");
  ExpectLimitsAround(json, -12'500'000);
  EXPECT_EQ(json["server"], server.name());
  EXPECT_EQ(json["rejected"], nlohmann::json::object());
  EXPECT_LE(json["samples_used"], json["samples_received"]);
  EXPECT_GE(json["samples_used"], 3);
  EXPECT_GE(json["requests_sent"], json["samples_received"]);
  EXPECT_GT(json["took_ms"], 0);
}

TEST(ProgramTest, TheTextShowsTheSameResultAsTheJson) {
  Server server({"--offset", "1.5"});
  const ChildExit exit = RunProgram({"sync", server.name()});
  EXPECT_EQ(exit.status, 0);
  EXPECT_THAT(exit.err, IsEmpty());
  EXPECT_THAT(exit.out, StartsWith("NTP time sync: success (result 0)\n  reason       ok\n"));
  EXPECT_THAT(exit.out,
              testing::ContainsRegex("  offset       \\+1\\.(49|50)[0-9]* s \\(the system clock is behind"));
  EXPECT_THAT(exit.out,
              testing::ContainsRegex("  limits       \\+1\\.(49|50)[0-9]* s to \\+1\\.50[0-9]* s\n"));
  EXPECT_THAT(exit.out,
              testing::ContainsRegex("  error        at most 0\\.00[0-9]* s, probably 0\\.00[0-9]* s\n"));
  EXPECT_THAT(exit.out, HasSubstr("  server       " + server.name() + "\n"));
}

TEST(ProgramTest, AnswersThatDifferTooMuchEndWithStatus1) {
  Server server({"--jitter", "400"});
  const ChildExit exit = RunProgram({"sync", server.name(), "--json"});
  EXPECT_EQ(exit.status, 1);
  EXPECT_THAT(exit.err, HasSubstr("answers differed too much"));
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], 1);
  EXPECT_EQ(json["reason"], "inaccurate");
  ExpectLimitsAround(json, 0);
}

TEST(ProgramTest, TheProgramSyncsOverIPv6) {
  if (!LoopbackUdp(net::IPEndPoint::Family::kIPv6).is_open()) {
    GTEST_SKIP() << "this machine has no ::1";
  }
  Server server({"--listen", "[::1]:0"});
  EXPECT_THAT(server.name(), StartsWith("[::1]:"));
  const ChildExit exit = RunProgram({"sync", server.name(), "--json"});
  EXPECT_EQ(exit.status, 0);
  EXPECT_EQ(nlohmann::json::parse(exit.out)["server"], server.name());
}

TEST(ProgramTest, TheLogIsShownFromTheChosenLevel) {
  Server server;
  EXPECT_THAT(RunProgram({"sync", server.name(), "--log-level", "0"}).err, HasSubstr("Start NTP time sync"));
  EXPECT_THAT(RunProgram({"sync", server.name(), "--log-level", "1"}).err, IsEmpty());
}

TEST(ProgramTest, ANameWithoutAnAddressIsReportedAtOnce) {
  const ChildExit exit = RunProgram({"sync", "nosuch.invalid", "--timeout", "30"});
  EXPECT_EQ(exit.status, 2);
  EXPECT_THAT(exit.err, HasSubstr("cannot resolve nosuch.invalid: "));
  EXPECT_THAT(exit.err, HasSubstr("Check the spelling"));
  EXPECT_THAT(exit.out, HasSubstr("no server name could be resolved (result -1)"));
}

TEST(ProgramTest, ANameWithoutAnAddressYieldsJsonToo) {
  const ChildExit exit = RunProgram({"sync", "nosuch.invalid", "--json"});
  EXPECT_EQ(exit.status, 2);
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], -1);
  EXPECT_EQ(json["message"], "no server name could be resolved");
  EXPECT_EQ(json["reason"], "not_resolved");
  EXPECT_EQ(json["status"], "unknown");
  EXPECT_TRUE(json["offset_us"].is_null());
  EXPECT_TRUE(json["server"].is_null());
  EXPECT_EQ(json["requests_sent"], 0);
}

TEST(ProgramTest, TheOtherServersAreAskedWhenOneNameHasNoAddress) {
  Server server;
  const ChildExit exit = RunProgram({"sync", "nosuch.invalid", server.name()});
  EXPECT_EQ(exit.status, 0);
  EXPECT_THAT(exit.err, HasSubstr("cannot resolve nosuch.invalid: "));
  EXPECT_THAT(exit.out, HasSubstr(server.name()));
}

TEST(ProgramTest, AClosedPortIsReported) {
  const std::string name = UnusedEndPoint().ToString();
  const ChildExit exit = RunProgram({"sync", name, "--json"});
  EXPECT_EQ(exit.status, 2);
  EXPECT_THAT(exit.err, HasSubstr(name + " has no NTP server on that port"));
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], -1);
  EXPECT_EQ(json["message"], "no usable result");
  EXPECT_EQ(json["reason"], "refused");
  EXPECT_EQ(json["samples_received"], 0);
  EXPECT_LT(json["took_ms"], 5000) << "a port that is known to be closed is not asked again";
}

TEST(ProgramTest, ASilentServerIsReportedWithWhatToCheck) {
  const LoopbackUdp silent;
  const ChildExit exit = RunProgram({"sync", silent.local().ToString()});
  EXPECT_EQ(exit.status, 2);
  EXPECT_THAT(exit.out, StartsWith("NTP time sync: no usable result (result -1)\n  reason       silent\n"));
  EXPECT_THAT(exit.err, HasSubstr("No answer came from " + silent.local().ToString()));
  EXPECT_THAT(exit.err, HasSubstr("123/udp"));
  EXPECT_THAT(exit.err, Not(HasSubstr("longer than")));
}

TEST(ProgramTest, TheTimeLimitEndsTheWait) {
  const LoopbackUdp silent;
  const ChildExit exit = RunProgram({"sync", silent.local().ToString(), "--json", "--timeout", "0.25"});
  EXPECT_EQ(exit.status, 2);
  EXPECT_THAT(exit.err, HasSubstr("longer than 0.25 s"));
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], -1);
  EXPECT_EQ(json["message"], "no outcome within 0.25 s");
  EXPECT_EQ(json["reason"], "timed_out");
  EXPECT_GE(json["took_ms"], 250);
}

TEST(ProgramTest, AGoodServerWinsOverASilentOne) {
  const LoopbackUdp silent;
  Server server({"--offset", "3"});
  const ChildExit exit = RunProgram({"sync", silent.local().ToString(), server.name(), "--json"});
  EXPECT_EQ(exit.status, 0);
  EXPECT_EQ(nlohmann::json::parse(exit.out)["server"], server.name());
}

TEST(ProgramTest, AConfiguredDefaultServerDoesNotAnswerForAnother) {
  Server server;
  const ChildExit exit =
      RunProgram({"sync", "nosuch.invalid"}, {"SKORRA_NTP_DEFAULT_DOMAIN=" + server.name()});
  EXPECT_EQ(exit.status, 2);
}

TEST(ProgramTest, ProblemsOfTheConfigurationAreWarningsOnly) {
  Server server;
  const ChildExit missing =
      RunProgram({"sync", server.name()}, {"SKORRA_NTP_CONFIG=/nonexistent/skorra.toml"});
  EXPECT_EQ(missing.status, 0);
  EXPECT_THAT(missing.err, HasSubstr("warning: "));
  EXPECT_THAT(missing.err, HasSubstr("/nonexistent/skorra.toml"));
  const ChildExit bad = RunProgram({"sync", server.name()}, {"SKORRA_NTP_RESOLVE_TIMEOUT_MS=soon"});
  EXPECT_EQ(bad.status, 0);
  EXPECT_THAT(bad.err, HasSubstr("SKORRA_NTP_RESOLVE_TIMEOUT_MS"));
}

TEST(ProgramTest, TheDemonstrationMeasuresTheTruth) {
  const ChildExit exit = RunProgram({"demo"});
  EXPECT_EQ(exit.status, 0) << exit.out << exit.err;
  EXPECT_THAT(exit.err, IsEmpty());
  EXPECT_THAT(exit.out, HasSubstr("  true offset      +2.345678 s\n"));
  EXPECT_THAT(exit.out, testing::ContainsRegex("  measured offset  \\+2\\.34[0-9]* s\n"));
  EXPECT_THAT(exit.out,
              testing::ContainsRegex("  error at most    0\\.01[0-9]* s: the true offset lies between the "
                                     "limits\n"));
}

TEST(ProgramTest, TheDemonstrationShowsALiarThatIsFoundOut) {
  const ChildExit exit = RunProgram({"demo"});
  EXPECT_EQ(exit.status, 0) << exit.out << exit.err;
  EXPECT_THAT(exit.out, testing::ContainsRegex("which lies by \\+3\\.000000 s:\n"));
  EXPECT_THAT(exit.out, testing::ContainsRegex(
                            "  agreement    agrees \\(1 of 2 others\\)\n"
                            "  outvoted     127.0.0.1:[0-9]+ says [0-9.]+ s to [0-9.]+ s later\n"
                            "  rate         not known yet \\(needs three syncs over half an hour\\)\n"));
}

TEST(ProgramTest, TheServerEndsCleanlyOnASignalAndCounts) {
  for (const int signal_number : {SIGTERM, SIGINT}) {
    Server server({"--seed", "42"});
    const LoopbackUdp client;
    const auto endpoint = net::IPEndPoint::FromLiteral(
        "127.0.0.1", static_cast<uint16_t>(std::atoi(server.name().c_str() + 10)));
    std::vector<uint8_t> request(48);
    request[0] = 4 << 3 | 3;
    ASSERT_TRUE(client.SendTo(*endpoint, request));
    ASSERT_TRUE(client.Receive(kPatienceMs));
    const ChildExit exit = server.End(signal_number);
    EXPECT_EQ(exit.status, 0);
    EXPECT_THAT(exit.err, IsEmpty());
    EXPECT_THAT(exit.out, HasSubstr("seed 42\n"));
    EXPECT_THAT(exit.out, HasSubstr("received 1, answered 1, lost on purpose 0, ignored 0, failed 0\n"));
  }
}

TEST(ProgramTest, AnAddressThatCannotBeHadEndsTheServerWithStatus1) {
  const LoopbackUdp occupant;
  const ChildExit taken = RunProgram({"serve", "--listen", occupant.local().ToString()});
  EXPECT_EQ(taken.status, 1);
  EXPECT_THAT(taken.out, IsEmpty());
  EXPECT_THAT(taken.err, HasSubstr("Address already in use"));
  EXPECT_THAT(taken.err, HasSubstr("Choose another port"));
  // An address of the documentation range is none of this machine.
  const ChildExit foreign = RunProgram({"serve", "--listen", "192.0.2.1:0"});
  EXPECT_EQ(foreign.status, 1);
  EXPECT_THAT(foreign.err, HasSubstr("an address of this machine"));
}

}  // namespace
}  // namespace skorra
