#pragma once
// Signature texts of log lines. Every error line names the failing function by one
// fixed text, the same on every compiler, e.g.
//   "void __cdecl zorl::convertLoop<float,unsigned char>(const float *,unsigned char *,unsigned __int64)"
// so the texts are built from these type names, never from the compiler's own macro.

#include <cstdint>
#include <string>

#include <zorl/core/pixel.h>

namespace zorl::sig {

template <class T>
struct TypeName;

template <> struct TypeName<float> { static std::string get() { return "float"; } };
template <> struct TypeName<double> { static std::string get() { return "double"; } };
template <> struct TypeName<bool> { static std::string get() { return "bool"; } };
template <> struct TypeName<int> { static std::string get() { return "int"; } };
template <> struct TypeName<unsigned int> { static std::string get() { return "unsigned int"; } };
template <> struct TypeName<unsigned char> { static std::string get() { return "unsigned char"; } };
template <> struct TypeName<unsigned short> { static std::string get() { return "unsigned short"; } };
template <> struct TypeName<long> { static std::string get() { return "__int64"; } };
template <> struct TypeName<long long> { static std::string get() { return "__int64"; } };
template <> struct TypeName<unsigned long> { static std::string get() { return "unsigned __int64"; } };
template <> struct TypeName<unsigned long long> { static std::string get() { return "unsigned __int64"; } };
template <> struct TypeName<void> { static std::string get() { return "void"; } };
template <> struct TypeName<char> { static std::string get() { return "char"; } };
template <> struct TypeName<short> { static std::string get() { return "short"; } };

// Qualifiers and pointers in the same spelling: "const float *", "unsigned char *".
template <class T> struct TypeName<const T> { static std::string get() { return "const " + TypeName<T>::get(); } };
template <class T> struct TypeName<T*> { static std::string get() { return TypeName<T>::get() + " *"; } };

#define ZORL_SIG_PIXEL_NAME(P)                                                                 \
    template <class T>                                                                         \
    struct TypeName<P<T>> {                                                                    \
        static std::string get() { return "struct zorl::" #P "<" + TypeName<T>::get() + ">"; } \
    };
ZORL_SIG_PIXEL_NAME(PixelRGB)
ZORL_SIG_PIXEL_NAME(PixelRGBA)
ZORL_SIG_PIXEL_NAME(PixelARGB)
ZORL_SIG_PIXEL_NAME(PixelBGR)
ZORL_SIG_PIXEL_NAME(PixelBGRA)
#undef ZORL_SIG_PIXEL_NAME

// The signature-text name of T: "float", "unsigned char", "struct zorl::PixelRGB<float>".
template <class T>
std::string typeName() {
    return TypeName<T>::get();
}

}  // namespace zorl::sig
