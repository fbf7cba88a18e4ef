#include <zorl/halton/halton.h>

namespace zorl {
namespace {
constexpr unsigned kPrimes[kHaltonMaxDimension] = {2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31, 37, 41, 43, 47, 53};
}

double radicalInverse(unsigned long long n, unsigned base) {
    const double inv = 1.0 / base;
    double scale = inv;
    double result = 0.0;
    while (n > 0) {
        result += static_cast<double>(n % base) * scale;
        n /= base;
        scale *= inv;
    }
    return result;
}

bool halton(int index, int dimension, float* baseInverses, int* digits, float* point) {
    if (index < 0 || dimension < 1 || dimension > kHaltonMaxDimension || !point) return false;
    const unsigned long long n = static_cast<unsigned long long>(index) + 1;
    for (int k = 0; k < dimension; ++k) {
        point[k] = static_cast<float>(radicalInverse(n, kPrimes[k]));
        if (baseInverses) baseInverses[k] = 1.0f / static_cast<float>(kPrimes[k]);
        if (digits) digits[k] = static_cast<int>(n % kPrimes[k]);
    }
    return true;
}

}  // namespace zorl
