#include <database/optionpricing.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

namespace {

// The exact distribution, from the C library's erfc.
double exactCdf(double x)
{
    return 0.5 * std::erfc(-x / std::sqrt(2.0));
}

// Black-76 without discounting, on the exact distribution.
double black(bool put, double F, double K, double sigma, double T)
{
    const double s = sigma * std::sqrt(T);
    const double d1 = (std::log(F / K) + 0.5 * s * s) / s;
    const double call = F * exactCdf(d1) - K * exactCdf(d1 - s);
    return put ? call - F + K : call;
}

VolatInputParams option(double F, double K, double T)
{
    VolatInputParams p{};
    p.underlyingPrice = F;
    p.strike = K;
    p.sqrtTime = std::sqrt(T);
    p.volatMin = VolatMinDefault;
    p.volatMax = VolatMaxDefault;
    return p;
}

TEST(OptionPricing, TheDistributionWithinThePolynomialsError)
{
    for (double x = -9.75; x <= 9.75; x += 0.25) {
        EXPECT_NEAR(norm_cdf(x), exactCdf(x), 1.5e-7) << x;
        EXPECT_NEAR(norm_pdf(x), std::exp(-x * x / 2) / std::sqrt(2 * M_PI), 1e-16) << x;
    }
    EXPECT_NEAR(norm_cdf(0), 0.5, 2e-7); // 0.49999985 with the shortened coefficients
    // At 0 the polynomial's coefficients sum to 1.2533137, and the factor in
    // front is the shortened literal 0.3989423, not 1/sqrt(2 pi) (which
    // would give 2.5e-8 less).
    EXPECT_NEAR(norm_cdf(0), 0.3989423 * 1.2533137, 1e-12);
    EXPECT_EQ(norm_cdf(10.5), 1.0);
    EXPECT_EQ(norm_cdf(-10.5), 0.0);
}

TEST(OptionPricing, PricesParityLimitsAndGreeks)
{
    const double F = 100;
    for (double K : {60.0, 95.0, 100.0, 130.0}) {
        for (double T : {0.02, 0.5, 2.0}) {
            const VolatInputParams p = option(F, K, T);
            const auto prices = theorPriceCallPut(p, 0.3);
            SCOPED_TRACE(K + T);
            EXPECT_NEAR(prices.first - prices.second, F - K, 1e-9);
            EXPECT_NEAR(prices.first, black(false, F, K, 0.3, T), 3e-5 * F);
            const double a = 0.3, b = std::sqrt(T);
            EXPECT_DOUBLE_EQ(theorPriceForOutOfTheMoney(a, b, false, F, K), prices.first);
            EXPECT_DOUBLE_EQ(theorPriceForOutOfTheMoney(a, b, true, F, K), prices.second);

            VolatOutputParams out{};
            calcVolatParamsNorm(out, p, 0.3);
            EXPECT_DOUBLE_EQ(out.priceCall, prices.first);
            EXPECT_NEAR(out.deltaCall - out.deltaPut, 1.0, 1e-15);
            // Vega and delta against finite differences of the exact model.
            const double h = 1e-5;
            EXPECT_NEAR(out.vega, (black(false, F, K, 0.3 + h, T) - black(false, F, K, 0.3 - h, T)) / (2 * h),
                        1e-4 * F);
            EXPECT_NEAR(out.deltaCall, (black(false, F + h, K, 0.3, T) - black(false, F - h, K, 0.3, T)) / (2 * h),
                        1e-5);
            EXPECT_NEAR(out.theta, -0.3 * F * norm_pdf(std::log(F / K) / (0.3 * b) + 0.15 * b) / (2 * b) / 365,
                        1e-12);

            VolatOutputParams percent{};
            calcVolatParams(percent, p, 30.0);
            EXPECT_DOUBLE_EQ(percent.vega * 100, out.vega);
            EXPECT_DOUBLE_EQ(percent.pricePut, out.pricePut);
        }
    }
    EXPECT_NEAR(theorPriceForInTheMoney(0.3, 1.0, F), theorPriceCallPut(option(F, F, 1.0), 0.3).first, 1e-12);
    // Far in the money the call is worth its intrinsic value, far out nothing.
    EXPECT_NEAR(theorPriceCallPut(option(F, 10, 0.1), 0.2).first, 90, 1e-9);
    EXPECT_NEAR(theorPriceCallPut(option(F, 1000, 0.1), 0.2).first, 0, 1e-9);
}

TEST(OptionPricing, InvalidAndZeroInputs)
{
    const VolatOutputParams marked{7, 7, 7, 7, 7, 7, 7};
    struct
    {
        double F, K, T, sigma;
    } invalid[] = {{0, 100, 1, 0.2}, {100, 0, 1, 0.2}, {100, 100, 0, 0.2}, {100, 100, 1, 0}, {100, -1, 1, 0.2}};
    for (const auto &c : invalid) {
        VolatOutputParams out = marked;
        calcVolatParamsNorm(out, option(c.F, c.K, c.T), c.sigma);
        EXPECT_EQ(std::memcmp(&out, &marked, sizeof out), 0) << c.F << ' ' << c.K << ' ' << c.T << ' ' << c.sigma;
    }
    // Volatility zero: the intrinsic values, Greeks untouched.
    struct
    {
        double F, K, call, put;
    } intrinsic[] = {{100, 100, 0, 0}, {110, 100, 10, 0}, {90, 100, 0, 10}};
    for (const auto &c : intrinsic) {
        VolatOutputParams out = marked;
        calcVolatParams(out, option(c.F, c.K, 1), 0.0);
        EXPECT_EQ(out.priceCall, c.call);
        EXPECT_EQ(out.pricePut, c.put);
        EXPECT_EQ(out.vega, 7);
    }
    // A negative volatility takes the smile's: here a flat 25%.
    VolatInputParams smile = option(100, 120, 0.5);
    smile.curveA = 25;
    smile.curveE = 1;
    VolatOutputParams fromCurve{}, direct{};
    calcVolatParams(fromCurve, smile, -1);
    calcVolatParams(direct, smile, 25);
    EXPECT_EQ(fromCurve.priceCall, direct.priceCall);
}

TEST(OptionPricing, TheSmileIsClamped)
{
    VolatInputParams p = option(100, 80, 0.25);
    p.curveE = 1;
    p.volatMin = 5;
    p.volatMax = 150;
    for (const auto &c : {std::pair<double, double>{25, 25}, {400, 150}, {-3, 5}, {5, 5}}) {
        p.curveA = c.first;
        EXPECT_EQ(volatByCurve(p), c.second) << c.first;
    }
    // A symmetric part that rises away from the money.
    p.curveA = 20;
    p.curveB = 10;
    p.curveC = 1;
    const double away = volatByCurve(p);
    p.strike = 100;
    EXPECT_EQ(volatByCurve(p), 20);
    EXPECT_NEAR(away, 20 + 10 * (1 - std::exp(-std::pow(std::log(0.8) / 0.5, 2))), 1e-12);
}

TEST(OptionPricing, ImpliedVolatilityRoundTrips)
{
    const double F = 100;
    int checked = 0;
    for (double k : {-1.5, -0.5, 0.0, 0.5, 1.5}) {
        for (double T : {7.0 / 365, 0.5, 2.0}) {
            for (double sigma : {0.1, 0.35, 0.8}) {
                const double K = F * std::exp(k * sigma * std::sqrt(T));
                const bool put = K < F;
                const VolatInputParams p = option(F, K, T);
                const auto prices = theorPriceCallPut(p, sigma);
                const double price = put ? prices.second : prices.first;
                const double implied = volatByTheorPrice(p, put, price, 0, VolatMinDefault, VolatMaxDefault, 1e-9, 1e-7);
                EXPECT_NEAR(implied, sigma * 100, 1e-4) << K << ' ' << T << ' ' << sigma;
                ++checked;
            }
        }
    }
    EXPECT_EQ(checked, 45);
}

TEST(OptionPricing, ImpliedVolatilityRules)
{
    const VolatInputParams p = option(100, 110, 0.5);
    const auto at = [&](double sigma) { return theorPriceCallPut(p, sigma).first; };
    // Start 0 means 50%: a price met there is answered at once.
    EXPECT_EQ(volatByTheorPrice(p, false, at(0.5), 0, 1, 200, 1e-12, 1e-6), 50.0);
    // Newton cannot start outside [10, 90]; the first bisection trial is
    // half the width, 40%, not the midpoint.
    EXPECT_EQ(volatByTheorPrice(p, false, at(0.4), 95, 10, 90, 1e-12, 1e-6), 40.0);
    // A price no volatility in the bounds reaches: the interval shrinks to
    // the tolerance and its last trial is answered ...
    EXPECT_NEAR(volatByTheorPrice(p, false, at(1.5), 95, 10, 90, 1e-12, 1e-3), 90, 1e-3);
    // ... unless the tolerance is too fine for 100 iterations.
    EXPECT_EQ(volatByTheorPrice(p, false, at(1.5), 95, 10, 90, 1e-12, 1e-40), -1.0);
    // No bisection on bad bounds or tolerances.
    EXPECT_EQ(volatByTheorPrice(p, false, at(0.4), 95, 90, 10, 1e-12, 1e-6), -1.0);
    EXPECT_EQ(volatByTheorPrice(p, false, at(0.4), 95, 10, 90, 0, 1e-6), -1.0);
    EXPECT_EQ(volatByTheorPrice(p, false, at(0.4), 95, 10, 90, 1e-12, 0), -1.0);
}

} // namespace
