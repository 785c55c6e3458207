#include "optionpricing.h"

#include <cmath>

const double VolatMinDefault = 0.01;
const double VolatMaxDefault = 1000.0;

namespace {

// 1 / sqrt(2 pi), worked out once when the library loads.
const double InvSqrt2Pi = 1.0 / std::sqrt(6.283185307179586);

double d1Of(double underlyingPrice, double strike, double sqrtTime, double sigma)
{
    return (std::log(underlyingPrice / strike) + 0.5 * (sqrtTime * sqrtTime) * (sigma * sigma)) / (sqrtTime * sigma);
}

} // namespace

double norm_pdf(double x)
{
    return std::exp(-0.5 * x * x) * InvSqrt2Pi;
}

double norm_cdf(double x)
{
    if (x > 10.0)
        return 1.0;
    if (x < -10.0)
        return 0.0;
    const double t = 1.0 / (1.0 + 0.2316419 * std::fabs(x));
    // 0.3989423 is the shortened literal of the polynomial, on purpose not
    // the factor of norm_pdf.
    const double q = 0.3989423 * std::exp(-0.5 * x * x) * t
        * ((((1.330274 * t - 1.821256) * t + 1.781478) * t - 0.3565638) * t + 0.3193815);
    return x > 0 ? 1.0 - q : q;
}

QPair<double, double> theorPriceCallPut(const VolatInputParams &params, double sigma)
{
    const double F = params.underlyingPrice, K = params.strike;
    const double d1 = d1Of(F, K, params.sqrtTime, sigma);
    const double d2 = d1 - sigma * params.sqrtTime;
    const double call = F * norm_cdf(d1) - K * norm_cdf(d2);
    return qMakePair(call, call - F + K);
}

double theorPriceForOutOfTheMoney(double a, double b, bool put, double underlyingPrice, double strike)
{
    const double d1 = (std::log(underlyingPrice / strike) + 0.5 * (b * b) * (a * a)) / (a * b);
    const double price = norm_cdf(d1) * underlyingPrice - norm_cdf(d1 - a * b) * strike;
    return put ? price - underlyingPrice + strike : price;
}

double theorPriceForInTheMoney(double a, double b, double underlyingPrice)
{
    return underlyingPrice * (norm_cdf(0.5 * b * a) - norm_cdf(0.5 * b * a - a * b));
}

double volatByCurve(const VolatInputParams &p)
{
    const double x = std::log(p.strike / p.underlyingPrice) / p.sqrtTime - p.curveS;
    double v = p.curveA + p.curveB * (1.0 - std::exp(-(x * p.curveC * x))) + p.curveD * std::atan(p.curveE * x) / p.curveE;
    if (v > p.volatMax)
        v = p.volatMax;
    if (!(v > p.volatMin))
        v = p.volatMin;
    return v;
}

void calcVolatParamsNorm(VolatOutputParams &out, const VolatInputParams &p, double sigma)
{
    const double F = p.underlyingPrice, K = p.strike, sqrtTime = p.sqrtTime;
    if (K <= 0 || F <= 0 || sqrtTime <= 0 || sigma <= 0)
        return;
    const double d1 = d1Of(F, K, sqrtTime, sigma);
    const double nd1 = norm_cdf(d1);
    const double nd2 = norm_cdf(d1 - sigma * sqrtTime);
    out.priceCall = F * nd1 - K * nd2;
    out.pricePut = out.priceCall - F + K;
    out.deltaCall = nd1;
    out.deltaPut = nd1 - 1;
    const double phi = norm_pdf(d1);
    out.gamma = phi / (sigma * F * sqrtTime);
    out.vega = sqrtTime * F * phi;
    out.theta = sigma * F * phi / (2 * sqrtTime) / -365;
}

void calcVolatParams(VolatOutputParams &out, const VolatInputParams &p, double volatPercent)
{
    const double F = p.underlyingPrice, K = p.strike;
    if (K <= 0 || F <= 0 || p.sqrtTime == 0)
        return;
    if (volatPercent < 0)
        volatPercent = volatByCurve(p);
    out.priceCall = 0;
    out.pricePut = 0;
    if (volatPercent == 0) {
        if (F >= K)
            out.priceCall = std::fabs(K - F);
        if (K >= F)
            out.pricePut = std::fabs(K - F);
        return;
    }
    calcVolatParamsNorm(out, p, volatPercent / 100);
    // Also when a negative time made the call above do nothing.
    out.vega /= 100;
}

double volatByTheorPrice(const VolatInputParams &p, bool put, double price, double startVolat, double volatMin,
                         double volatMax, double priceTolerance, double volatTolerance)
{
    // The last volatility priced and its results: Newton asks for the vega
    // of the point it has just priced.
    double cachedSigma = -1.0;
    VolatOutputParams cached{};
    const auto model = [&](double sigma) {
        if (sigma != cachedSigma) {
            calcVolatParamsNorm(cached, p, sigma);
            cachedSigma = sigma;
        }
        return put ? cached.pricePut : cached.priceCall;
    };

    double lo = volatMin / 100;
    double hi = volatMax / 100;
    if (std::fabs(startVolat) <= 1e-12)
        startVolat = 50.0;
    double sigma = startVolat / 100;

    if (sigma >= lo && sigma <= hi) {
        double diff = price - model(sigma);
        if (std::fabs(diff) <= priceTolerance)
            return sigma * 100;
        for (int steps = 0;;) {
            const double vega = cached.vega;
            if (std::fabs(vega) <= 1e-12 || steps >= 100)
                break;
            sigma += diff / vega;
            if (sigma < lo || sigma > hi)
                break;
            diff = price - model(sigma);
            ++steps;
            if (std::fabs(diff) <= priceTolerance)
                return sigma * 100;
        }
    }

    const double tolerance = volatTolerance / 100;
    if (lo > hi || tolerance <= 0 || priceTolerance <= 0)
        return -1.0;
    // The first trial is half the width, not the midpoint: kept as it is.
    double trial = (hi - lo) * 0.5;
    for (int iterations = 0;;) {
        const double half = (hi - lo) / 2;
        if (half < tolerance)
            break;
        const double diff = price - model(trial);
        if (std::fabs(diff) < priceTolerance)
            break;
        if (diff > 0)
            lo += half;
        else
            hi -= half;
        ++iterations;
        trial = (lo + hi) / 2;
        if (iterations >= 100)
            return -1.0;
    }
    return trial * 100;
}
