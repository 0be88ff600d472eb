// ZvEvaluate.cpp: the operator-precedence evaluator behind ZV_Evaluate.
//
// Two explicit stacks (operators and values) drive a shunting-yard
// evaluation: numbers are pushed as they are read, and an operator first
// applies every stacked operator that binds at least as tightly. The stacks
// live in process-wide storage and one ZvLocker serialises the callers.
//
// Missing values are part of the rules: popping an empty value stack still
// lowers the count (it may go negative) and yields 0.0, which is how a
// function applied to its single argument gets a harmless left operand. A
// value pushed while the count is negative lands in such a missing slot and
// is not stored, so it also reads back as 0.0.
#include <ZvEvaluate.h>

#include <ZvLocker.h>

#include "base/internal/LockHolder.h"
#include "base/internal/NumericCast.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct OperatorEntry
{
	char code;
	const char* name;
	int32 length;
	int32 precedence;
};

// Looked up by prefix in this order; no name is a prefix of another, so at
// most one entry matches any text. Functions and "(" have precedence 0: they
// open a group that ")" closes.
const OperatorEntry kOperators[] = {
    {'+', "+", 1, 2},    {'-', "-", 1, 3},     {'*', "*", 1, 4},     {'/', "/", 1, 5},
    {'%', "%", 1, 5},    {'^', "^", 1, 6},     {'(', "(", 1, 0},     {')', ")", 1, 99},
    {'S', "SIN(", 4, 0}, {'C', "COS(", 4, 0},  {'A', "ABS(", 4, 0},  {'L', "LN(", 3, 0},
    {'E', "EXP(", 4, 0}, {'t', "ATAN(", 5, 0}, {'s', "SQRT(", 5, 0},
};

const double kPi = 3.141592653589793;

const int32 kOperatorCapacity = 32768;
const int32 kValueCapacity = 256;

// Working copies up to this length live on the caller's stack.
const size_t kInlineCopy = 256;

// The evaluation state, shared by every call and guarded by EvaluatorLock().
char sOperators[kOperatorCapacity];
int32 sOperatorCount;
double sValues[kValueCapacity];
int32 sValueCount;
int32 sOpenCount;

ZvLocker& EvaluatorLock()
{
	// A function-local static is constructed exactly once even when several
	// threads make their first call at the same moment (the others wait for
	// the construction), and it is destroyed at process exit.
	static ZvLocker sLock;
	return sLock;
}

const OperatorEntry* FindOperator(const char* text)
{
	for (const OperatorEntry& entry : kOperators) {
		if (text[0] == entry.name[0] && std::strncmp(text, entry.name, entry.length) == 0)
			return &entry;
	}
	return nullptr;
}

int32 PrecedenceOf(char code)
{
	for (const OperatorEntry& entry : kOperators) {
		if (entry.code == code)
			return entry.precedence;
	}
	return -1;
}

bool PushOperator(const OperatorEntry& entry)
{
	if (sOperatorCount >= kOperatorCapacity)
		return false;
	sOperators[sOperatorCount++] = entry.code;
	if (entry.precedence == 0)
		sOpenCount++;
	return true;
}

bool PushValue(double value)
{
	if (sValueCount >= kValueCapacity)
		return false;
	if (sValueCount >= 0)
		sValues[sValueCount] = value;
	sValueCount++;
	return true;
}

double PopValue()
{
	sValueCount--;
	return sValueCount >= 0 ? sValues[sValueCount] : 0.0;
}

// Applies the operator on top of the operator stack to the top two values.
// Returns the operator's code (positive) or -1.
int32 ApplyTop()
{
	if (sOperatorCount <= 0)
		return -1;
	const char code = sOperators[--sOperatorCount];
	const double right = PopValue();
	const double left = PopValue();
	switch (code) {
	case '+':
		PushValue(left + right);
		break;
	case '-':
		PushValue(left - right);
		break;
	case '*':
		PushValue(left * right);
		break;
	case '/':
		if (right == 0)
			return -1;
		PushValue(left / right);
		break;
	case '%':
		if (right == 0)
			return -1;
		PushValue(std::fmod(left, right));
		break;
	case '^':
		PushValue(std::pow(left, right));
		break;
	// A function's argument is the top value; the value beneath it is
	// given back to the stack before the result is pushed.
	case 'S':
		sValueCount++;
		PushValue(std::sin(right));
		break;
	case 'C':
		sValueCount++;
		PushValue(std::cos(right));
		break;
	case 'E':
		sValueCount++;
		PushValue(std::exp(right));
		break;
	case 't':
		sValueCount++;
		PushValue(std::atan(right));
		break;
	case 'L':
		if (!(right > 0))
			return -1;
		sValueCount++;
		PushValue(std::log(right));
		break;
	case 's':
		// The domain test looks at the value beneath the argument, not at
		// the argument: "-3*SQRT(4)" fails, "SQRT(-4)" is NaN.
		if (0 > left)
			return -1;
		sValueCount++;
		PushValue(std::sqrt(right));
		break;
	case 'A': {
		sValueCount++;
		const int32 truncated = zvkit::internal::TruncateToInt32(right);
		// In 32-bit arithmetic the magnitude of INT32_MIN is itself.
		const uint32 magnitude =
		    truncated < 0 ? 0u - static_cast<uint32>(truncated) : static_cast<uint32>(truncated);
		PushValue(static_cast<double>(static_cast<int32>(magnitude)));
		break;
	}
	case '(':
		sValueCount += 2;
		break;
	default:
		return -1;
	}
	if (sValueCount <= 0)
		return -1;
	return code;
}

// Handles ")": applies operators down to and including the innermost opener.
int32 CloseGroup()
{
	if (sOpenCount-- < 1)
		return -1;
	for (;;) {
		const int32 code = ApplyTop();
		if (code < 0 || PrecedenceOf(static_cast<char>(code)) == 0)
			return code;
	}
}

// Delimits the token at the cursor and returns its length; the token is
// always at least one character. A leading minus that is not the sign of a
// number is a unary minus: it pushes the left operand 0.0 and is returned as
// the one-character token "-". Returns -1 when that push overflows.
int32 TokenLength(const char* cursor)
{
	if (cursor[0] == 'P' && cursor[1] == 'I')
		return 2;
	int32 length = 0;
	for (char c; (c = cursor[length]) != '\0'; length++) {
		if (c == '-') {
			if (length == 0) {
				const char next = cursor[1];
				if ((next >= '0' && next <= '9') || next == '.')
					continue;
				return PushValue(0.0) ? 1 : -1;
			}
			if (cursor[length - 1] == 'E')
				continue;
			break;
		}
		const OperatorEntry* entry = FindOperator(cursor + length);
		if (entry != nullptr)
			return length == 0 ? entry->length : length;
	}
	return length;
}

// Reads the number token of the given length at the cursor. The token is
// terminated in place for strtod and the byte behind it put back.
bool ReadNumber(char* cursor, int32 length, double* value)
{
	if (length == 2 && cursor[0] == 'P' && cursor[1] == 'I') {
		*value = kPi;
		return true;
	}
	const char saved = cursor[length];
	cursor[length] = '\0';
	*value = std::strtod(cursor, nullptr);
	cursor[length] = saved;
	return *value != 0.0 || std::memchr(cursor, '0', length) != nullptr;
}

int32 Evaluate(char* text, double* result)
{
	sOperatorCount = 0;
	sValueCount = 0;
	sOpenCount = 0;
	// True after an operand, where an operator must come next.
	bool expectOperator = false;

	char* cursor = text;
	while (*cursor != '\0') {
		if (!expectOperator) {
			const int32 length = TokenLength(cursor);
			if (length < 0)
				return -1;
			const OperatorEntry* entry = FindOperator(cursor);
			if (entry != nullptr && entry->length == length) {
				// An operator where an operand belongs (an opener, a unary
				// minus, or a stray one) is stacked without any reduction.
				if (!PushOperator(*entry))
					return -1;
			} else {
				double value;
				if (!ReadNumber(cursor, length, &value) || !PushValue(value))
					return -1;
				expectOperator = true;
			}
			cursor += length;
		} else {
			const OperatorEntry* entry = FindOperator(cursor);
			if (entry == nullptr)
				return -1;
			if (entry->code == ')') {
				if (CloseGroup() < 0)
					return -1;
			} else {
				// Equal precedence reduces first: every binary operator groups
				// from the left. Failures here surface later (a missing value
				// reads as 0.0 and the final checks catch what is left).
				while (sOperatorCount > 0 &&
				       PrecedenceOf(sOperators[sOperatorCount - 1]) >= entry->precedence)
					ApplyTop();
				if (!PushOperator(*entry))
					return -1;
				expectOperator = false;
			}
			cursor += entry->length;
		}
	}

	while (sValueCount >= 2) {
		if (ApplyTop() < 0)
			return -1;
	}
	if (sOperatorCount > 0)
		return -1;
	*result = PopValue();
	return sValueCount >= 0 ? 0 : -1;
}

} // namespace

extern "C" int32 ZV_Evaluate(const char* expression, double* result)
{
	if (expression == nullptr || result == nullptr)
		return -1;

	zvkit::internal::LockHolder<ZvLocker> lock(EvaluatorLock());
	if (!lock.IsLocked())
		return -1;

	const size_t length = std::strlen(expression);
	if (length == 0) {
		*result = 0.0;
		return 0;
	}

	// The working copy: upper case, white space removed.
	char inlineCopy[kInlineCopy];
	std::unique_ptr<char[]> heapCopy;
	char* text = inlineCopy;
	if (length >= kInlineCopy) {
		heapCopy.reset(new char[length + 1]);
		text = heapCopy.get();
	}
	size_t kept = 0;
	for (size_t i = 0; i < length; i++) {
		const int c = std::toupper(static_cast<unsigned char>(expression[i]));
		if (!std::isspace(c))
			text[kept++] = static_cast<char>(c);
	}
	text[kept] = '\0';

	return Evaluate(text, result);
}
