// ZvEvaluate.h: the infix expression evaluator.
//
// ZV_Evaluate computes the value of an arithmetic expression typed as text,
// such as "2*SIN(PI/4)+1E-3". Letters may be in either case and white space
// is ignored anywhere. It knows + - * / % ^, parentheses, the constant PI and
// the functions SIN( COS( ABS( LN( EXP( ATAN( SQRT(.
//
// The rules are the evaluator's own and differ from school arithmetic on
// purpose; callers that depend on them get the same result on every host:
//  - precedence, from weakest to strongest: + then - then * then / and %
//    then ^; operators of equal strength group from the left, so "2^3^2" is
//    64 and "2*5%3" is 4;
//  - a minus sign directly before a digit or '.' belongs to the number
//    ("-2^2" is 4); any other leading minus means 0 minus what follows;
//  - a number ends at the first operator, so "1E+5" is 1+5 and "3X" is 3;
//  - ABS truncates to a 32-bit integer first ("ABS(-2.7)" is 2);
//  - SQRT refuses when the value just before it on the working stack is
//    negative ("-3*SQRT(4)" fails while "SQRT(4)*-3" is -6); its argument
//    itself is not checked, so "SQRT(-1)" returns 0 with NaN in *result.
//
// Ownership: the caller owns both arguments; nothing is kept after the call.
//
// Thread safety: ZV_Evaluate may be called from any thread. Its working
// stacks are shared by the whole process and calls are serialised by one
// process-wide ZvLocker, created safely by whichever call comes first.
#ifndef _ZV_EVALUATE_H
#define _ZV_EVALUATE_H

#include <SupportDefs.h>

#include <ZvExport.h>

extern "C" {

// Returns 0 and stores the value in *result, or returns -1 on any error: a
// null argument, an unknown character where an operator belongs, a token that
// is not a number, division or remainder by zero, LN of a value not above 0,
// a negative value just before SQRT (not a negative argument: "SQRT(-1)"
// returns 0 with NaN), unbalanced parentheses, operators left over, more
// nesting than the working stacks hold (256 values, 32768 operators), or no
// value at the end. On error *result is left alone, except that an
// expression that leaves no value at all stores 0.0 before returning -1. The
// empty string gives 0 with *result 0.0. Other infinite or NaN results are
// returned as the C library gives them, with 0: "EXP(1000)" is infinity,
// "(-8)^(1/3)" NaN.
ZV_EXPORT int32 ZV_Evaluate(const char* expression, double* result);

} // extern "C"

#endif // _ZV_EVALUATE_H
