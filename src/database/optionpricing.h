#ifndef DATABASE_OPTIONPRICING_H
#define DATABASE_OPTIONPRICING_H

#include "database_export.h"

#include <QtCore/QPair>

// European options on a futures price, undiscounted (the Black model on the
// forward): prices, Greeks, a parametric volatility smile, and the implied
// volatility of a price. Volatilities are in percent at this boundary
// (20.0 is 20%) except where a function says `sigma`, a fraction. No
// function throws or keeps state between calls; all are reentrant.
//
// N is norm_cdf, phi norm_pdf; d1 = (ln(F/K) + 0.5 sqrtTime^2 sigma^2) /
// (sqrtTime sigma), d2 = d1 - sigma sqrtTime.

// The inputs of one option and of the smile that gives its volatility.
struct DATABASE_EXPORT VolatInputParams
{
    double strike;          // K
    double underlyingPrice; // F
    double sqrtTime;        // square root of the time to expiry in years
    double curveA;          // smile base level
    double curveB;          // height of the symmetric part
    double curveC;          // curvature of the symmetric part
    double curveD;          // weight of the skew part
    double curveE;          // steepness of the skew part
    double curveS;          // shift of the moneyness
    double volatMin;        // clamps of the smile value
    double volatMax;
};

struct DATABASE_EXPORT VolatOutputParams
{
    double deltaCall; // N(d1)
    double deltaPut;  // N(d1) - 1
    double gamma;     // phi(d1) / (sigma F sqrtTime)
    double vega;      // sqrtTime F phi(d1), per unit of sigma (calcVolatParamsNorm)
                      // or per percentage point (calcVolatParams)
    double theta;     // -(sigma F phi(d1)) / (2 sqrtTime) / 365, per calendar day
    double priceCall;
    double pricePut;
};

// Default search bounds for volatByTheorPrice, in percent.
DATABASE_EXPORT extern const double VolatMinDefault; // 0.01
DATABASE_EXPORT extern const double VolatMaxDefault; // 1000.0

// The standard normal density.
DATABASE_EXPORT double norm_pdf(double x);
// The standard normal distribution by the seven-digit polynomial 26.2.17 of
// Abramowitz and Stegun (error about 1e-7); exactly 1 above 10 and 0 below
// -10.
DATABASE_EXPORT double norm_cdf(double x);

// (call, put) at volatility `sigma` (a fraction); no checks.
DATABASE_EXPORT QPair<double, double> theorPriceCallPut(const VolatInputParams &params, double sigma);
// The price with a b standing for sigma sqrtTime; a put when `put`; no checks.
DATABASE_EXPORT double theorPriceForOutOfTheMoney(double a, double b, bool put, double underlyingPrice,
                                                  double strike);
// The price of an option whose strike equals F.
DATABASE_EXPORT double theorPriceForInTheMoney(double a, double b, double underlyingPrice);

// The smile's volatility at the option's strike, in percent, clamped to
// [volatMin, volatMax] (volatMin also when the value is not a number).
DATABASE_EXPORT double volatByCurve(const VolatInputParams &params);

// Greeks and prices at `sigma` (a fraction). Leaves `out` untouched unless
// K, F, sqrtTime and sigma are all positive.
DATABASE_EXPORT void calcVolatParamsNorm(VolatOutputParams &out, const VolatInputParams &params, double sigma);
// The same in percent, vega per percentage point. A negative volatility
// means the smile's; a zero one gives the intrinsic prices and leaves the
// Greeks. Nothing happens unless K and F are positive and sqrtTime is not 0.
DATABASE_EXPORT void calcVolatParams(VolatOutputParams &out, const VolatInputParams &params, double volatPercent);

// The volatility (percent) at which the call (or the put) is worth `price`:
// Newton's method from `startVolat` (0 means 50%) within [volatMin,
// volatMax], then bisection of that interval when Newton fails. The first
// bisection trial is half the interval's width, the later ones midpoints.
// -1.0 when the bisection makes 100 iterations without meeting either
// tolerance (or cannot start). Volatilities in percent, `priceTolerance` in
// price units.
DATABASE_EXPORT double volatByTheorPrice(const VolatInputParams &params, bool put, double price, double startVolat,
                                         double volatMin, double volatMax, double priceTolerance,
                                         double volatTolerance);

#endif // DATABASE_OPTIONPRICING_H
