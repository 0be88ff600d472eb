// Tests of ZV_Evaluate: the evaluator's own rules, its error cases, the
// limits of its stacks, a cross-check against muparser where the rules agree
// with ordinary arithmetic, and concurrent callers.
#include <ZvEvaluate.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#ifdef ZVKIT_HAVE_MUPARSER
#include <muParser.h>
#endif

namespace {

const double kSentinel = -12345.678;

uint64_t Bits(double value)
{
	uint64_t bits;
	std::memcpy(&bits, &value, sizeof(bits));
	return bits;
}

// Hides a constant from the compiler, so that library functions applied to
// it run in the C library at run time, as they do inside the evaluator.
double Runtime(double value)
{
	const volatile double hidden = value;
	return hidden;
}

// Evaluates and expects success with exactly this value.
void ExpectValue(const char* expression, double expected)
{
	double result = kSentinel;
	ASSERT_EQ(ZV_Evaluate(expression, &result), 0) << "'" << expression << "'";
	EXPECT_EQ(Bits(result), Bits(expected))
	    << "'" << expression << "' gave " << result << ", expected " << expected;
}

// Evaluates and expects -1 with the result left untouched.
void ExpectError(const char* expression)
{
	double result = kSentinel;
	EXPECT_EQ(ZV_Evaluate(expression, &result), -1) << "'" << expression << "'";
	EXPECT_EQ(result, kSentinel) << "'" << expression << "' wrote the result";
}

TEST(ZvEvaluate, EmptyExpressionIsZero)
{
	double result = kSentinel;
	EXPECT_EQ(ZV_Evaluate("", &result), 0);
	EXPECT_EQ(Bits(result), Bits(0.0));
}

TEST(ZvEvaluate, BlankExpressionFailsAfterStoringZero)
{
	// White space is removed, nothing is left and the final pop of the empty
	// value stack stores 0.0 before the call fails.
	double result = kSentinel;
	EXPECT_EQ(ZV_Evaluate("   ", &result), -1);
	EXPECT_EQ(Bits(result), Bits(0.0));
	result = kSentinel;
	EXPECT_EQ(ZV_Evaluate("\t\n \r", &result), -1);
	EXPECT_EQ(Bits(result), Bits(0.0));
}

TEST(ZvEvaluate, NullArgumentsAreRefused)
{
	double result = kSentinel;
	EXPECT_EQ(ZV_Evaluate(nullptr, &result), -1);
	EXPECT_EQ(result, kSentinel);
	EXPECT_EQ(ZV_Evaluate("1+2", nullptr), -1);
	EXPECT_EQ(ZV_Evaluate("", nullptr), -1);
}

TEST(ZvEvaluate, BasicPrecedenceAndGrouping)
{
	ExpectValue("1+2*3", 7);
	ExpectValue("(1+2)*3", 9);
	ExpectValue("10-4-3", 3);
	ExpectValue("8/4/2", 1);
	ExpectValue("7", 7);
	ExpectValue("(5)", 5);
	ExpectValue("((5))", 5);
	ExpectValue("2^10", 1024);
	ExpectValue("7%3", 1);
	ExpectValue("-7%3", std::fmod(-7.0, 3.0));
}

TEST(ZvEvaluate, RemainderBindsTighterThanMultiplication)
{
	ExpectValue("2*5%3", 4);
	ExpectValue("2*6/3", 4);
	ExpectValue("12/3*2", 8);
}

TEST(ZvEvaluate, PowerGroupsFromTheLeft)
{
	ExpectValue("2^3^2", 64);
}

TEST(ZvEvaluate, SubtractionBindsTighterThanAddition)
{
	// Visible in the rounding: 0.1 + (0.2 - 0.3) is exactly 2^-55, while
	// (0.1 + 0.2) - 0.3 in double arithmetic would be 2^-54.
	ExpectValue("0.1+0.2-0.3", 0x1p-55);
}

TEST(ZvEvaluate, FunctionsInEitherCase)
{
	ExpectValue("cos(0)", 1);
	ExpectValue("COS(0)", 1);
	ExpectValue("sqrt(16)", 4);
	ExpectValue("Sin(0.5)", std::sin(Runtime(0.5)));
	ExpectValue("exp(1)", std::exp(Runtime(1)));
	ExpectValue("atan(1)", std::atan(Runtime(1)));
	ExpectValue("ln(10)", std::log(Runtime(10)));
	ExpectValue("LN(EXP(2))", std::log(std::exp(Runtime(2))));
	ExpectValue("2*SIN(PI/4)+1E-3", 2 * std::sin(Runtime(3.141592653589793) / 4) + 1e-3);
}

TEST(ZvEvaluate, LogarithmAndDivisionDomainErrors)
{
	ExpectError("ln(0)");
	ExpectError("LN(-1)");
	ExpectError("1/0");
	ExpectError("5%0");
	ExpectError("2*(1/0)");
}

TEST(ZvEvaluate, AbsTruncatesToA32BitInteger)
{
	ExpectValue("abs(-2.7)", 2);
	ExpectValue("ABS(2.7)", 2);
	ExpectValue("ABS(-0.5)", 0);
	ExpectValue("ABS(-2147483647)", 2147483647);
	// Out of the 32-bit range the conversion gives the integer-overflow value
	// INT32_MIN, whose magnitude in 32-bit arithmetic is itself.
	ExpectValue("ABS(3E9)", -2147483648.0);
	ExpectValue("ABS(-2147483648)", -2147483648.0);
}

TEST(ZvEvaluate, SquareRootDomainTestLooksBeneathTheArgument)
{
	ExpectError("-3*SQRT(4)");
	ExpectValue("SQRT(4)*-3", -6);
	ExpectValue("3*SQRT(4)", 6);
	// The argument itself is not tested: the C library's sqrt gives NaN.
	double result = kSentinel;
	ASSERT_EQ(ZV_Evaluate("SQRT(-4)", &result), 0);
	EXPECT_TRUE(std::isnan(result));
}

// The header's failure list names a negative value before SQRT, not a
// negative argument: these pin both halves of that statement.
TEST(ZvEvaluate, SquareRootOfMinusOneReturnsZeroWithNaN)
{
	double result = kSentinel;
	ASSERT_EQ(ZV_Evaluate("SQRT(-1)", &result), 0);
	EXPECT_TRUE(std::isnan(result));
	result = kSentinel;
	ASSERT_EQ(ZV_Evaluate("sqrt(-1)+1", &result), 0);
	EXPECT_TRUE(std::isnan(result));
}

TEST(ZvEvaluate, NegativeValueBeforeSquareRootFailsAndLeavesTheResult)
{
	ExpectError("-1*SQRT(4)");
	ExpectError("-1*SQRT(-1)");
	ExpectValue("1*SQRT(4)", 2);
}

TEST(ZvEvaluate, InfiniteAndNaNResultsAreReturnedAsValues)
{
	double result = kSentinel;
	ASSERT_EQ(ZV_Evaluate("EXP(1000)", &result), 0);
	EXPECT_TRUE(std::isinf(result) && result > 0);
	result = kSentinel;
	ASSERT_EQ(ZV_Evaluate("(-8)^(1/3)", &result), 0);
	EXPECT_TRUE(std::isnan(result));
}

TEST(ZvEvaluate, MalformedExpressionsFail)
{
	ExpectError("2(3)");
	ExpectError("(1+2");
	ExpectError("1+2)");
	ExpectError("X");
	ExpectError("+5");
	ExpectError("()");
	ExpectError("5+");
	ExpectError("*5");
	ExpectError("5*-");
	ExpectError("SIN()");
	ExpectError("SIN(1");
	ExpectError("2SIN(3)");
	ExpectError("PI2");
	ExpectError("(3)#");
	ExpectError(")");
}

TEST(ZvEvaluate, NumberTokensAreNotCheckedForTrailingCharacters)
{
	ExpectValue("0X", 0);
	ExpectValue("3X", 3);
	ExpectValue("2PI", 2);
	ExpectValue("1.5.3", 1.5);
	ExpectValue("3#", 3);
}

TEST(ZvEvaluate, ExponentsAndWhiteSpace)
{
	ExpectValue("1e-3", 0.001);
	ExpectValue("2 PI", 2);
	ExpectValue(" s i n ( 0 ) ", 0);
	ExpectValue("1 +\t2\n*3", 7);
	ExpectValue("1 2", 12);
	// The '+' ends the token "1E", which reads as 1.
	ExpectValue("1E+5", 6);
	ExpectValue("2.5E2", 250);
}

TEST(ZvEvaluate, PiIsTheNearestDouble)
{
	double result = 0;
	ASSERT_EQ(ZV_Evaluate("PI", &result), 0);
	EXPECT_EQ(Bits(result), 0x400921FB54442D18ull);
	ExpectValue("pi", 3.141592653589793);
	ExpectValue("-PI", -3.141592653589793);
}

TEST(ZvEvaluate, MinusSignsAndUnaryMinus)
{
	ExpectValue("-2^2", 4);
	ExpectValue("2*-3", -6);
	ExpectValue("2*-(3)", -6);
	ExpectValue("-(2)", -2);
	ExpectValue("--2", 2);
	ExpectValue("1 - -2", 3);
	ExpectValue("-.5", -0.5);
	ExpectValue("2^-1", 0.5);
}

TEST(ZvEvaluate, ErrorLeavesTheResultUntouchedAndTheNextCallWorks)
{
	ExpectError("1/0");
	ExpectValue("1+1", 2);
	ExpectError("(((");
	ExpectValue("2*3", 6);
}

TEST(ZvEvaluate, DeepNestingWithinTheStacksWorks)
{
	// Every "1+(" leaves one value on the stack: 200 levels need 201 values.
	std::string expression;
	for (int i = 0; i < 200; i++)
		expression += "1+(";
	expression += "1";
	expression += std::string(200, ')');
	ExpectValue(expression.c_str(), 201);
}

TEST(ZvEvaluate, ValueStackOverflowFails)
{
	std::string expression;
	for (int i = 0; i < 300; i++)
		expression += "1+(";
	expression += "1";
	expression += std::string(300, ')');
	ExpectError(expression.c_str());
}

TEST(ZvEvaluate, OperatorStackOverflowFails)
{
	std::string expression(40000, '(');
	expression += "1";
	expression += std::string(40000, ')');
	ExpectError(expression.c_str());
	ExpectError(std::string(100000, '-').c_str());
}

TEST(ZvEvaluate, LongExpressionsAreEvaluated)
{
	std::string expression = "0";
	for (int i = 0; i < 5000; i++)
		expression += " + 1";
	ExpectValue(expression.c_str(), 5000);

	std::string number(40000, '1');
	double result = 0;
	ASSERT_EQ(ZV_Evaluate(number.c_str(), &result), 0);
	EXPECT_EQ(result, std::strtod(number.c_str(), nullptr));
}

TEST(ZvEvaluate, BytesOutsideAsciiAreHandled)
{
	ExpectError("\xff");
	ExpectError("1+\x80");
	ExpectValue("1\x80", 1);
	ExpectError("\xa0"
	            "5");
}

#ifdef ZVKIT_HAVE_MUPARSER

// muparser's value, or NaN when it refuses the expression.
double MuparserValue(const std::string& expression)
{
	try {
		mu::Parser parser;
		parser.SetExpr(expression);
		return parser.Eval();
	} catch (const mu::Parser::exception_type&) {
		return std::nan("");
	}
}

uint64_t UlpDistance(double a, double b)
{
	auto ordered = [](double v) {
		int64_t bits;
		std::memcpy(&bits, &v, sizeof(bits));
		return bits < 0 ? INT64_MIN - bits : bits;
	};
	const int64_t ia = ordered(a);
	const int64_t ib = ordered(b);
	return ia > ib ? static_cast<uint64_t>(ia - ib) : static_cast<uint64_t>(ib - ia);
}

std::string RandomTerm(std::mt19937& random, int depth)
{
	if (depth == 0 || random() % 3 == 0) {
		std::string number = std::to_string(random() % 1000);
		if (random() % 2)
			number += "." + std::to_string(random() % 1000);
		if (random() % 4 == 0)
			number = "-" + number;
		return number;
	}
	static const char kOps[] = {'+', '-', '*', '/'};
	return "(" + RandomTerm(random, depth - 1) + kOps[random() % 4] +
	       RandomTerm(random, depth - 1) + ")";
}

// One expression in ZV_Evaluate's spelling and in muparser's.
struct Pair
{
	const char* ours;
	const char* theirs;
};

TEST(ZvEvaluateMuparser, AgreesBitForBitWhereTheRulesMatch)
{
	const Pair kPairs[] = {
	    {"1+2+3.5", "1+2+3.5"},
	    {"10-4-3", "10-4-3"},
	    {"2*3*4.5", "2*3*4.5"},
	    {"100/7/3", "100/7/3"},
	    {"0.1+0.2", "0.1+0.2"},
	    {"(1+2)*(3-4)/(5+6)", "(1+2)*(3-4)/(5+6)"},
	    {"((2*3)+(4/5))-1", "((2*3)+(4/5))-1"},
	    {"1e-3*7", "1e-3*7"},
	    // muparser's own _pi is a shorter decimal than the double nearest
	    // pi, so the literal stands in for it.
	    {"PI/4", "3.141592653589793/4"},
	    {"(PI*2)/3", "(3.141592653589793*2)/3"},
	    {"SQRT(2)", "sqrt(2)"},
	    {"sqrt(16)", "sqrt(16)"},
	    {"ABS(-2)", "abs(-2)"},
	};
	for (const Pair& pair : kPairs) {
		double ours = 0;
		ASSERT_EQ(ZV_Evaluate(pair.ours, &ours), 0) << pair.ours;
		EXPECT_EQ(Bits(ours), Bits(MuparserValue(pair.theirs))) << pair.ours;
	}
}

TEST(ZvEvaluateMuparser, FunctionsAndPowerAgreeWithinOneUlp)
{
	const Pair kPairs[] = {
	    {"SIN(0.5)", "sin(0.5)"},
	    {"COS(1.25)", "cos(1.25)"},
	    {"EXP(2.5)", "exp(2.5)"},
	    {"ATAN(0.75)", "atan(0.75)"},
	    {"LN(10)", "ln(10)"},
	    {"2*SIN(PI/4)+1E-3", "2*sin(3.141592653589793/4)+1e-3"},
	    {"SQRT(SIN(1)*COS(1))", "sqrt(sin(1)*cos(1))"},
	    {"EXP(LN(7))", "exp(ln(7))"},
	    {"1.5^2.5", "1.5^2.5"},
	    {"2^0.5", "2^0.5"},
	    {"3^4", "3^4"},
	    {"(1+ATAN(2))^3", "(1+atan(2))^3"},
	};
	for (const Pair& pair : kPairs) {
		double ours = 0;
		ASSERT_EQ(ZV_Evaluate(pair.ours, &ours), 0) << pair.ours;
		const double theirs = MuparserValue(pair.theirs);
		EXPECT_LE(UlpDistance(ours, theirs), 1u) << pair.ours << ": " << ours << " vs " << theirs;
	}
}

TEST(ZvEvaluateMuparser, RandomFullyParenthesisedExpressionsAgreeBitForBit)
{
	std::mt19937 random(20240607);
	int compared = 0;
	for (int i = 0; i < 2000; i++) {
		const std::string expression = RandomTerm(random, 5);
		const double theirs = MuparserValue(expression);
		double ours = kSentinel;
		const int32 status = ZV_Evaluate(expression.c_str(), &ours);
		if (!std::isfinite(theirs)) {
			// A division by zero somewhere: the evaluator refuses it.
			continue;
		}
		ASSERT_EQ(status, 0) << expression;
		EXPECT_EQ(Bits(ours), Bits(theirs)) << expression << ": " << ours << " vs " << theirs;
		compared++;
	}
	EXPECT_GT(compared, 1500);
}

TEST(ZvEvaluateMuparser, DeliberateDifferencesFromOrdinaryArithmetic)
{
	struct Case
	{
		const char* ours;
		const char* theirs;
		double ourValue;
	};
	// muparser follows ordinary arithmetic; the evaluator's rules differ.
	const Case kCases[] = {
	    {"2*5%3", "1", 4}, // (2*5) mod 3
	    {"1E+5", "1e+5", 6},    {"-2^2", "-2^2", 4},
	    {"2^3^2", "2^3^2", 64}, {"ABS(-2.7)", "abs(-2.7)", 2},
	};
	for (const Case& c : kCases) {
		double ours = 0;
		ASSERT_EQ(ZV_Evaluate(c.ours, &ours), 0) << c.ours;
		EXPECT_EQ(ours, c.ourValue) << c.ours;
		EXPECT_NE(ours, MuparserValue(c.theirs)) << c.ours;
	}
	// And the one that agrees although it reads as a trap.
	double ours = 0;
	ASSERT_EQ(ZV_Evaluate("10-4-3", &ours), 0);
	EXPECT_EQ(ours, MuparserValue("10-4-3"));
}

#else

TEST(ZvEvaluateMuparser, AgreesBitForBitWhereTheRulesMatch)
{
	GTEST_SKIP() << "muparser is not available in this configuration";
}

#endif

TEST(ZvEvaluateConcurrency, EightThreadsEachGetTheirOwnResults)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(120), "evaluator concurrency");
	const int kThreads = 8;
	const int kCalls = 10000;
	std::atomic<int> wrong{0};
	zvtest::Latch ready(kThreads);
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([t, &wrong, &ready] {
			ready.CountDown();
			ready.WaitFor(std::chrono::seconds(30));
			char expression[64];
			for (int i = 0; i < kCalls; i++) {
				// Different shapes per thread, so that a shared stack mixed
				// between two calls would show.
				double expected;
				switch (t % 4) {
				case 0:
					std::snprintf(expression, sizeof(expression), "%d*%d+%d", i, t, t);
					expected = static_cast<double>(i) * t + t;
					break;
				case 1:
					std::snprintf(expression, sizeof(expression), "(%d+%d)*(%d-1)", i, t, t);
					expected = static_cast<double>(i + t) * (t - 1);
					break;
				case 2:
					std::snprintf(expression, sizeof(expression), "SQRT(%d)+%d^2", i * i, t);
					expected = static_cast<double>(i) + t * t;
					break;
				default:
					std::snprintf(expression, sizeof(expression), "-%d - %d", i, t);
					expected = -static_cast<double>(i) - t;
					break;
				}
				double result = 0;
				if (ZV_Evaluate(expression, &result) != 0 || result != expected)
					wrong++;
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(wrong.load(), 0);
}

// The lock is created by the first call in the process. A death test in the
// "threadsafe" style runs its statement in a freshly started copy of this
// binary, where no call has been made yet: there eight threads make their
// first call at the same moment, and the child exits 0 only when every call
// gave its own right answer.
void RaceOnTheFirstCall()
{
	const int kThreads = 8;
	std::atomic<int> wrong{0};
	zvtest::Latch start(kThreads);
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([t, &wrong, &start] {
			start.CountDown();
			start.WaitFor(std::chrono::seconds(30));
			char expression[32];
			for (int i = 0; i < 200; i++) {
				std::snprintf(expression, sizeof(expression), "(%d+%d)*2", t, i);
				double result = 0;
				if (ZV_Evaluate(expression, &result) != 0 || result != (t + i) * 2.0)
					wrong++;
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	std::fflush(nullptr);
	std::_Exit(wrong.load() == 0 ? 0 : 1);
}

TEST(ZvEvaluateFirstCall, FirstCallsFromManyThreadsShareOneLock)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(240), "first-call race");
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_EXIT(RaceOnTheFirstCall(), testing::ExitedWithCode(0), "");
}

} // namespace
