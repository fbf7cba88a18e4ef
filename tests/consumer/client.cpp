// A client of the installed package: includes the umbrella header only.
#include <imageprocessing/imageprocessing.h>

#include <cstdio>

int main() {
    using namespace zorl;
    auto image = std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>(64, 48), PixelRGB<float>{0.5f, 0.25f, 1.0f},
                                                                ColorProfileType::sRGB());
    auto bytes = floatToIntImageData<uint8_t>(image);
    if (!bytes || bytes->width() != 64 || bytes->data()[0].r != 127) {
        std::puts("unexpected result");
        return 1;
    }
    std::puts("ok");
    return 0;
}
