// One-shot evaluation of ten typical expressions: ZV_Evaluate against
// muparser's SetExpr + Eval of the same expressions (in muparser's spelling).
#include <ZvEvaluate.h>

#include <benchmark/benchmark.h>
#include <muParser.h>

#include <cstdlib>

namespace {

struct Expression
{
	const char* zvkit;
	const char* muparser;
};

const Expression kExpressions[] = {
    {"2*SIN(PI/4)+1E-3", "2*sin(_pi/4)+1e-3"},
    {"(1+2)*3", "(1+2)*3"},
    {"3.5*4.25-1.5/2", "3.5*4.25-1.5/2"},
    {"SQRT(2)*SQRT(8)", "sqrt(2)*sqrt(8)"},
    {"EXP(1.5)-LN(2)", "exp(1.5)-ln(2)"},
    {"COS(0.3)^2+SIN(0.3)^2", "cos(0.3)^2+sin(0.3)^2"},
    {"ATAN(1)*4", "atan(1)*4"},
    {"(12.5+7.5)/(3-1)", "(12.5+7.5)/(3-1)"},
    {"100*(1+0.05)^10", "100*(1+0.05)^10"},
    {"2^10-1", "2^10-1"},
};

void Evaluate_zvkit(benchmark::State& state)
{
	for (auto _ : state) {
		for (const Expression& expression : kExpressions) {
			double value;
			if (ZV_Evaluate(expression.zvkit, &value) != 0)
				std::abort();
			benchmark::DoNotOptimize(value);
		}
	}
	state.SetItemsProcessed(state.iterations() * 10);
}

void Evaluate_muparser(benchmark::State& state)
{
	mu::Parser parser;
	for (auto _ : state) {
		for (const Expression& expression : kExpressions) {
			parser.SetExpr(expression.muparser);
			double value = parser.Eval();
			benchmark::DoNotOptimize(value);
		}
	}
	state.SetItemsProcessed(state.iterations() * 10);
}

} // namespace

BENCHMARK(Evaluate_zvkit)->Name("Evaluate:zvkit");
BENCHMARK(Evaluate_muparser)->Name("Evaluate:muparser");

BENCHMARK_MAIN();
