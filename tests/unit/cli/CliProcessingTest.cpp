#include "cli/CliProcessing.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Builds a writable argv with the program name first, as the system hands it to main.
class Args {
public:
    Args(std::initializer_list<std::string> args) : m_strings{"tessel-networkd"} {
        m_strings.insert(m_strings.end(), args.begin(), args.end());
        for (std::string& s : m_strings) m_pointers.push_back(&s[0]);
        m_pointers.push_back(nullptr);
    }
    int Argc() const { return static_cast<int>(m_strings.size()); }
    char** Argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_strings;
    std::vector<char*> m_pointers;
};

// The daemon's two declarations, help first.
void DeclareDaemonOptions(CliProcessing& cli) {
    ASSERT_EQ(cli.AddParam("00help", "--help", "-h", PARAM_OVERRIDE, true, "Shows this help", ""), 0);
    ASSERT_EQ(cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", ""), 0);
}

int Parse(CliProcessing& cli, std::initializer_list<std::string> args) {
    Args argv(args);
    return cli.ProcessCmdLine(argv.Argc(), argv.Argv());
}

class DaemonOptionsTest : public ::testing::Test {
protected:
    void SetUp() override { DeclareDaemonOptions(m_cli); }
    CliProcessing m_cli;
};

// --- AddParam ---------------------------------------------------------------

TEST(CliAddParamTest, ReturnsZeroForNewKeys) {
    CliProcessing cli;
    EXPECT_EQ(cli.AddParam("00help", "--help", "-h", PARAM_OVERRIDE, true, "Shows this help", ""), 0);
    EXPECT_EQ(cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", ""), 0);
}

TEST(CliAddParamTest, SecondDeclarationOfAKeyReturnsThreeAndTheFirstStands) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00help", "--help", "-h", PARAM_OVERRIDE, true, "Shows this help", ""), 0);
    EXPECT_EQ(cli.AddParam("00help", "--other", "-o", PARAM_OPTIONAL, false, "Something else", "<x>"), 3);
    EXPECT_EQ(cli.GetUsage(10), "    -h, --help     [Override ] Shows this help\n");
    EXPECT_EQ(cli.GetParamName("--help"), "00help");
    EXPECT_EQ(cli.GetParamName("--other"), "");
    EXPECT_EQ(cli.GetParamName("-o"), "");
}

TEST(CliAddParamTest, RejectedMandatoryDeclarationIsNotCounted) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", ""), 0);
    ASSERT_EQ(cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", ""), 3);
    // Counted twice, one "-c" would fall short of two mandatory options.
    EXPECT_EQ(Parse(cli, {"-c", "a"}), 0);
}

TEST(CliAddParamTest, RejectedDeclarationKeepsTheFirstKind) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("01cfg-file", "--config", "-c", PARAM_OPTIONAL, false, "Path to config file", ""), 0);
    ASSERT_EQ(cli.AddParam("01cfg-file", "--config", "-c", PARAM_MANDATORY, false, "Path to config file", ""), 3);
    EXPECT_EQ(Parse(cli, {}), 0);
    EXPECT_EQ(cli.GetUsage(8), "    -c, --config [Optional ] Path to config file\n");
}

// --- ProcessCmdLine with the daemon's declarations ---------------------------

TEST_F(DaemonOptionsTest, NoArgumentsMissesTheMandatoryConfig) {
    EXPECT_EQ(Parse(m_cli, {}), 4);
    EXPECT_EQ(m_cli["00help"], "");
    EXPECT_EQ(m_cli["01cfg-file"], "");
}

TEST_F(DaemonOptionsTest, ShortHelpAloneOverridesTheMandatoryCheck) {
    EXPECT_EQ(Parse(m_cli, {"-h"}), 0);
    EXPECT_EQ(m_cli["00help"], "FLAG");
    EXPECT_EQ(m_cli["01cfg-file"], "");
}

TEST_F(DaemonOptionsTest, LongHelpAloneOverridesTheMandatoryCheck) {
    EXPECT_EQ(Parse(m_cli, {"--help"}), 0);
    EXPECT_EQ(m_cli["00help"], "FLAG");
}

TEST_F(DaemonOptionsTest, ShortConfigTakesTheNextArgument) {
    EXPECT_EQ(Parse(m_cli, {"-c", "/etc/x.conf"}), 0);
    EXPECT_EQ(m_cli["01cfg-file"], "/etc/x.conf");
    EXPECT_EQ(m_cli["00help"], "");
}

TEST_F(DaemonOptionsTest, LongConfigTakesTheNextArgument) {
    EXPECT_EQ(Parse(m_cli, {"--config", "/etc/tessel-networkd.conf"}), 0);
    EXPECT_EQ(m_cli["01cfg-file"], "/etc/tessel-networkd.conf");
}

TEST_F(DaemonOptionsTest, ConfigAsLastArgumentLacksItsValue) { EXPECT_EQ(Parse(m_cli, {"--config"}), 1); }

TEST_F(DaemonOptionsTest, ShortConfigAsLastArgumentLacksItsValue) { EXPECT_EQ(Parse(m_cli, {"-c"}), 1); }

TEST_F(DaemonOptionsTest, SameOptionTwiceByEitherNameIsThree) {
    EXPECT_EQ(Parse(m_cli, {"-c", "a", "--config", "b"}), 3);
    EXPECT_EQ(Parse(m_cli, {"-c", "a", "-c", "b"}), 3);
    EXPECT_EQ(Parse(m_cli, {"-h", "--help"}), 3);
}

TEST_F(DaemonOptionsTest, UnknownArgumentsAreOne) {
    EXPECT_EQ(Parse(m_cli, {"-x"}), 1);
    EXPECT_EQ(Parse(m_cli, {"--config=a"}), 1);
    EXPECT_EQ(Parse(m_cli, {"-hc", "a"}), 1);
    EXPECT_EQ(Parse(m_cli, {"--"}), 1);
    EXPECT_EQ(Parse(m_cli, {"/etc/x.conf"}), 1);
}

TEST_F(DaemonOptionsTest, NamesMatchWholeAndCaseSensitive) {
    EXPECT_EQ(Parse(m_cli, {"--Help"}), 1);
    EXPECT_EQ(Parse(m_cli, {"--hel"}), 1);
    EXPECT_EQ(Parse(m_cli, {"--helpx"}), 1);
    EXPECT_EQ(Parse(m_cli, {"-C", "a"}), 1);
    EXPECT_EQ(Parse(m_cli, {"config", "a"}), 1);
}

TEST_F(DaemonOptionsTest, HelpBeforeConfigSetsBoth) {
    EXPECT_EQ(Parse(m_cli, {"--help", "-c", "a"}), 0);
    EXPECT_EQ(m_cli["00help"], "FLAG");
    EXPECT_EQ(m_cli["01cfg-file"], "a");
}

TEST_F(DaemonOptionsTest, HelpAfterConfigSetsBoth) {
    EXPECT_EQ(Parse(m_cli, {"-c", "a", "-h"}), 0);
    EXPECT_EQ(m_cli["00help"], "FLAG");
    EXPECT_EQ(m_cli["01cfg-file"], "a");
}

TEST_F(DaemonOptionsTest, ValueIsTakenVerbatimEvenWhenItIsAnOptionName) {
    EXPECT_EQ(Parse(m_cli, {"--config", "--help"}), 0);
    EXPECT_EQ(m_cli["01cfg-file"], "--help");
    EXPECT_EQ(m_cli["00help"], "");
}

TEST_F(DaemonOptionsTest, ValueMayStartWithADashOrHoldBlanks) {
    EXPECT_EQ(Parse(m_cli, {"-c", "-x y"}), 0);
    EXPECT_EQ(m_cli["01cfg-file"], "-x y");
}

TEST_F(DaemonOptionsTest, EmptyValueCountsAsGivenButReadsEmpty) {
    EXPECT_EQ(Parse(m_cli, {"-c", ""}), 0);
    EXPECT_EQ(m_cli["01cfg-file"], "");
}

TEST_F(DaemonOptionsTest, AnEmptyValueGivenFirstStillMakesASecondOneADuplicate) {
    EXPECT_EQ(Parse(m_cli, {"-c", "", "--config", "/etc/x.conf"}), 3);
    EXPECT_EQ(m_cli["01cfg-file"], "");
}

TEST_F(DaemonOptionsTest, ValuesStoredBeforeAnUnknownArgumentStay) {
    EXPECT_EQ(Parse(m_cli, {"-c", "a", "-x"}), 1);
    EXPECT_EQ(m_cli["01cfg-file"], "a");
}

TEST_F(DaemonOptionsTest, ValuesStoredBeforeAMissingValueStay) {
    EXPECT_EQ(Parse(m_cli, {"-h", "--config"}), 1);
    EXPECT_EQ(m_cli["00help"], "FLAG");
    EXPECT_EQ(m_cli["01cfg-file"], "");
}

TEST_F(DaemonOptionsTest, ValuesStoredBeforeADuplicateStay) {
    EXPECT_EQ(Parse(m_cli, {"-c", "first", "-h", "--config", "second"}), 3);
    EXPECT_EQ(m_cli["01cfg-file"], "first");
    EXPECT_EQ(m_cli["00help"], "FLAG");
}

TEST_F(DaemonOptionsTest, ParsingAgainClearsThePreviousValues) {
    ASSERT_EQ(Parse(m_cli, {"-c", "a"}), 0);
    EXPECT_EQ(Parse(m_cli, {"-c", "b"}), 0);  // not a duplicate of the earlier parse
    EXPECT_EQ(m_cli["01cfg-file"], "b");
    EXPECT_EQ(Parse(m_cli, {}), 4);
    EXPECT_EQ(m_cli["01cfg-file"], "");
}

TEST_F(DaemonOptionsTest, OverrideStaysInForceForLaterParses) {
    ASSERT_EQ(Parse(m_cli, {"-h"}), 0);
    // A fresh object gives 4 here; this one has seen --help.
    EXPECT_EQ(Parse(m_cli, {}), 0);
    EXPECT_EQ(m_cli["00help"], "");
    EXPECT_EQ(Parse(m_cli, {"-c", "a"}), 0);
    EXPECT_EQ(m_cli["01cfg-file"], "a");
}

TEST_F(DaemonOptionsTest, OverrideSeenInARejectedParseStillSticks) {
    ASSERT_EQ(Parse(m_cli, {"-h", "-x"}), 1);
    EXPECT_EQ(Parse(m_cli, {}), 0);
}

TEST_F(DaemonOptionsTest, UnknownKeyReadsEmptyAndIsNotInserted) {
    ASSERT_EQ(Parse(m_cli, {"-c", "a"}), 0);
    EXPECT_EQ(m_cli["02nothing"], "");
    EXPECT_EQ(m_cli["02nothing"], "");
    EXPECT_EQ(m_cli["--config"], "");  // names are not keys
    EXPECT_EQ(m_cli["01cfg-file"], "a");
}

// --- Parsing without the daemon's declarations ------------------------------

TEST(CliProcessCmdLineTest, NoDeclarationsAndNoArgumentsIsZero) {
    CliProcessing cli;
    EXPECT_EQ(Parse(cli, {}), 0);
}

TEST(CliProcessCmdLineTest, NoDeclarationsButArgumentsIsOne) {
    CliProcessing cli;
    EXPECT_EQ(Parse(cli, {"-h"}), 1);
    EXPECT_EQ(Parse(cli, {""}), 1);
}

TEST(CliProcessCmdLineTest, OptionalAndAttributeOptionsAreNotCounted) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00opt", "--opt", "-o", PARAM_OPTIONAL, true, "Optional flag", ""), 0);
    ASSERT_EQ(cli.AddParam("01attr", "--attr", "-a", PARAM_ATTRIBUTE, false, "Attribute value", ""), 0);
    ASSERT_EQ(cli.AddParam("02must", "--must", "-m", PARAM_MANDATORY, false, "Mandatory value", ""), 0);
    EXPECT_EQ(Parse(cli, {"-o", "-a", "v"}), 4);
    EXPECT_EQ(cli["00opt"], "FLAG");
    EXPECT_EQ(cli["01attr"], "v");
    EXPECT_EQ(Parse(cli, {"-m", "w"}), 0);
    EXPECT_EQ(cli["02must"], "w");
    EXPECT_EQ(cli["00opt"], "");
}

TEST(CliProcessCmdLineTest, EveryMandatoryOptionMustBeGiven) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00first", "--first", "-f", PARAM_MANDATORY, false, "First", ""), 0);
    ASSERT_EQ(cli.AddParam("01second", "--second", "-s", PARAM_MANDATORY, true, "Second", ""), 0);
    EXPECT_EQ(Parse(cli, {"-f", "x"}), 4);
    EXPECT_EQ(Parse(cli, {"-s"}), 4);
    EXPECT_EQ(Parse(cli, {"-s", "-f", "x"}), 0);
}

TEST(CliProcessCmdLineTest, EmptyArgumentMatchesAnOptionWithAnEmptyName) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00named", "--named", "-n", PARAM_OPTIONAL, true, "Named", ""), 0);
    ASSERT_EQ(cli.AddParam("01bare", "--bare", "", PARAM_OPTIONAL, false, "No short name", ""), 0);
    EXPECT_EQ(Parse(cli, {"", "value"}), 0);
    EXPECT_EQ(cli["01bare"], "value");
    EXPECT_EQ(cli["00named"], "");
}

TEST(CliProcessCmdLineTest, EmptyArgumentWithoutAnEmptyNameIsUnknown) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00named", "--named", "-n", PARAM_OPTIONAL, true, "Named", ""), 0);
    EXPECT_EQ(Parse(cli, {""}), 1);
}

TEST(CliProcessCmdLineTest, LowerKeyShadowsADuplicateName) {
    CliProcessing cli;
    // Declared first but sorted after "05low".
    ASSERT_EQ(cli.AddParam("10high", "--same", "-a", PARAM_OPTIONAL, false, "High", ""), 0);
    ASSERT_EQ(cli.AddParam("05low", "--same", "-b", PARAM_OPTIONAL, false, "Low", ""), 0);
    EXPECT_EQ(Parse(cli, {"--same", "v"}), 0);
    EXPECT_EQ(cli["05low"], "v");
    EXPECT_EQ(cli["10high"], "");
    EXPECT_EQ(Parse(cli, {"-a", "w"}), 0);  // its short name still reaches the shadowed one
    EXPECT_EQ(cli["10high"], "w");
    EXPECT_EQ(Parse(cli, {"--same", "v", "-a", "w"}), 0);
    EXPECT_EQ(Parse(cli, {"--same", "v", "-b", "w"}), 3);
}

TEST(CliProcessCmdLineTest, OneOptionsShortNameMayBeAnothersLongName) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00one", "--one", "-x", PARAM_OPTIONAL, false, "One", ""), 0);
    ASSERT_EQ(cli.AddParam("01two", "-x", "-t", PARAM_OPTIONAL, false, "Two", ""), 0);
    EXPECT_EQ(Parse(cli, {"-x", "v"}), 0);
    EXPECT_EQ(cli["00one"], "v");
    EXPECT_EQ(cli["01two"], "");
}

// --- IsParam and GetParamName ------------------------------------------------

TEST_F(DaemonOptionsTest, IsParamKnowsBothNamesOfEachOption) {
    EXPECT_TRUE(m_cli.IsParam("--help"));
    EXPECT_TRUE(m_cli.IsParam("-h"));
    EXPECT_TRUE(m_cli.IsParam("--config"));
    EXPECT_TRUE(m_cli.IsParam("-c"));
    EXPECT_FALSE(m_cli.IsParam("-x"));
    EXPECT_FALSE(m_cli.IsParam("--config=a"));
    EXPECT_FALSE(m_cli.IsParam("00help"));  // a key is not a name
    EXPECT_FALSE(m_cli.IsParam(""));
}

TEST_F(DaemonOptionsTest, IsParamOnTheOverrideSetsItForTheNextParse) {
    ASSERT_TRUE(m_cli.IsParam("--help"));
    EXPECT_EQ(Parse(m_cli, {}), 0);
}

TEST_F(DaemonOptionsTest, IsParamWithoutAMatchSetsNothing) {
    ASSERT_FALSE(m_cli.IsParam("--nothing"));
    EXPECT_EQ(Parse(m_cli, {}), 4);
}

TEST_F(DaemonOptionsTest, MandatoryCountedByIsParamIsResetByTheNextParse) {
    ASSERT_TRUE(m_cli.IsParam("-c"));
    ASSERT_TRUE(m_cli.IsParam("--config"));
    // The parse starts its count from zero, so the matches above do not stand in for a --config.
    EXPECT_EQ(Parse(m_cli, {}), 4);
    EXPECT_EQ(Parse(m_cli, {"-c", "a"}), 0);
}

TEST_F(DaemonOptionsTest, GetParamNameGivesTheKeyForEitherName) {
    EXPECT_EQ(m_cli.GetParamName("--help"), "00help");
    EXPECT_EQ(m_cli.GetParamName("-h"), "00help");
    EXPECT_EQ(m_cli.GetParamName("--config"), "01cfg-file");
    EXPECT_EQ(m_cli.GetParamName("-c"), "01cfg-file");
    EXPECT_EQ(m_cli.GetParamName("-x"), "");
    EXPECT_EQ(m_cli.GetParamName("--CONFIG"), "");
    EXPECT_EQ(m_cli.GetParamName(""), "");
}

TEST_F(DaemonOptionsTest, GetParamNameHasNoSideEffects) {
    ASSERT_EQ(m_cli.GetParamName("--help"), "00help");
    EXPECT_EQ(Parse(m_cli, {}), 4);
}

TEST(CliGetParamNameTest, NothingDeclaredGivesEmpty) {
    CliProcessing cli;
    EXPECT_EQ(cli.GetParamName("--help"), "");
    EXPECT_EQ(cli.GetParamName(""), "");
    EXPECT_FALSE(cli.IsParam(""));
}

TEST(CliGetParamNameTest, EmptyNameMatchesTheFirstOptionWithAnEmptyName) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00named", "--named", "-n", PARAM_OPTIONAL, true, "Named", ""), 0);
    ASSERT_EQ(cli.AddParam("03later", "", "-l", PARAM_OPTIONAL, true, "No long name", ""), 0);
    ASSERT_EQ(cli.AddParam("02bare", "--bare", "", PARAM_OPTIONAL, true, "No short name", ""), 0);
    EXPECT_EQ(cli.GetParamName(""), "02bare");
    EXPECT_TRUE(cli.IsParam(""));
}

TEST(CliGetParamNameTest, LowerKeyShadowsADuplicateName) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("10high", "--same", "-s", PARAM_OPTIONAL, true, "High", ""), 0);
    ASSERT_EQ(cli.AddParam("05low", "--other", "--same", PARAM_OPTIONAL, true, "Low", ""), 0);
    EXPECT_EQ(cli.GetParamName("--same"), "05low");
    EXPECT_EQ(cli.GetParamName("-s"), "10high");
}

// --- GetUsage ------------------------------------------------------------------

TEST_F(DaemonOptionsTest, UsageOfTheDaemonsOptionsAtWidthForty) {
    EXPECT_EQ(m_cli.GetUsage(40),
              "    -h, --help                                   [Override ] Shows this help\n"
              "    -c, --config                                 [Mandatory] Path to config file\n");
}

TEST_F(DaemonOptionsTest, UsageLinesPadTheLongNameToTheWidth) {
    std::string usage = m_cli.GetUsage(40);
    EXPECT_EQ(usage, std::string("    -h, --help") + std::string(34, ' ') + " [Override ] Shows this help\n" +
                         "    -c, --config" + std::string(32, ' ') + " [Mandatory] Path to config file\n");
}

TEST_F(DaemonOptionsTest, UsageDoesNotDependOnParsing) {
    std::string before = m_cli.GetUsage(40);
    ASSERT_EQ(Parse(m_cli, {"-c", "a"}), 0);
    EXPECT_EQ(m_cli.GetUsage(40), before);
}

TEST(CliGetUsageTest, OptionsDeclaredOutOfOrderAreListedAndMatchedInKeyOrder) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("2c", "--c", "-c", PARAM_OPTIONAL, true, "C", ""), 0);
    ASSERT_EQ(cli.AddParam("0a", "--a", "-a", PARAM_OPTIONAL, true, "A", ""), 0);
    ASSERT_EQ(cli.AddParam("1b", "--b", "-a", PARAM_OPTIONAL, true, "B", ""), 0);
    EXPECT_EQ(cli.GetUsage(3),
              "    -a, --a [Optional ] A\n"
              "    -a, --b [Optional ] B\n"
              "    -c, --c [Optional ] C\n");
    // "-a" is both 0a's and 1b's: the lower key wins.
    EXPECT_EQ(cli.GetParamName("-a"), "0a");
}

TEST(CliGetUsageTest, NothingDeclaredGivesEmpty) {
    CliProcessing cli;
    EXPECT_EQ(cli.GetUsage(40), "");
}

TEST(CliGetUsageTest, KindWordsOfEveryKind) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("0opt", "--opt", "-o", PARAM_OPTIONAL, true, "O", ""), 0);
    ASSERT_EQ(cli.AddParam("1man", "--man", "-m", PARAM_MANDATORY, false, "M", ""), 0);
    ASSERT_EQ(cli.AddParam("2ovr", "--ovr", "-v", PARAM_OVERRIDE, true, "V", ""), 0);
    ASSERT_EQ(cli.AddParam("3att", "--att", "-a", PARAM_ATTRIBUTE, false, "A", ""), 0);
    ASSERT_EQ(cli.AddParam("4bad", "--bad", "-b", static_cast<MANDATORY_E>(7), false, "B", ""), 0);
    ASSERT_EQ(cli.AddParam("5neg", "--neg", "-n", static_cast<MANDATORY_E>(-1), false, "N", ""), 0);
    EXPECT_EQ(cli.GetUsage(6),
              "    -o, --opt  [Optional ] O\n"
              "    -m, --man  [Mandatory] M\n"
              "    -v, --ovr  [Override ] V\n"
              "    -a, --att  [Attribute] A\n"
              "    -b, --bad  [         ] B\n"
              "    -n, --neg  [         ] N\n");
}

TEST(CliGetUsageTest, ArgHintFollowsTheLongNameInsideTheColumn) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00file", "--file", "-f", PARAM_OPTIONAL, false, "Input file", " <path>"), 0);
    ASSERT_EQ(cli.AddParam("01level", "--level", "-l", PARAM_OPTIONAL, false, "Level", "=N"), 0);
    EXPECT_EQ(cli.GetUsage(16),
              "    -f, --file <path>    [Optional ] Input file\n"
              "    -l, --level=N        [Optional ] Level\n");
}

TEST(CliGetUsageTest, ColumnWiderThanTheWidthIsNotCut) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("00config", "--configuration", "-c", PARAM_MANDATORY, false, "Path", ""), 0);
    EXPECT_EQ(cli.GetUsage(4), "    -c, --configuration [Mandatory] Path\n");
}

TEST(CliGetUsageTest, LinesFollowKeyOrderNotDeclarationOrder) {
    CliProcessing cli;
    ASSERT_EQ(cli.AddParam("b", "--bee", "-b", PARAM_OPTIONAL, true, "Second", ""), 0);
    ASSERT_EQ(cli.AddParam("B", "--big", "-B", PARAM_OPTIONAL, true, "First (upper case sorts first)", ""), 0);
    ASSERT_EQ(cli.AddParam("a", "--ant", "", PARAM_OPTIONAL, true, "Between", ""), 0);
    EXPECT_EQ(cli.GetUsage(5),
              "    -B, --big [Optional ] First (upper case sorts first)\n"
              "    , --ant [Optional ] Between\n"
              "    -b, --bee [Optional ] Second\n");
}

}  // namespace
