// The frame shared by the native methods of com.tolvo.tran.api.TranApiAdapter:
// Java values turned into the text pairs of the native entries, and back.
//
// Any Java thread may call any method with its own environment; the binding
// holds no lock of its own.  Every JNI call that can fail is checked: a
// failure, or an exception it left pending, is cleared and the value is
// treated as absent, so that the method still traces what it can and never
// raises anything into Java.
#pragma once

#include <jni.h>

#include <cstdint>
#include <cstdlib>

#include "core/log_field.h"

namespace varnix::jni {

// The tracing methods do nothing, silently, while the library is not up.
bool traced();

// The native entries take the low 32 bits of a Java thread id.
constexpr int32_t native_tid(jlong tid) { return static_cast<int32_t>(static_cast<uint64_t>(tid)); }

// Clears an exception a JNI call left pending; true when there was one.
bool cleared(JNIEnv* env);

// The modified-UTF-8 characters of a String, held while the object lives,
// with the String's length in UTF-16 units (never more than the bytes, so
// the native side reads only what it was given).  A null String, or one
// whose characters cannot be had, is absent: a null pointer, length 0.
class JavaChars {
public:
    JavaChars() = default;
    JavaChars(JNIEnv* env, jstring s) { take(env, s); }
    ~JavaChars() { release(); }
    JavaChars(const JavaChars&) = delete;
    JavaChars& operator=(const JavaChars&) = delete;

    void take(JNIEnv* env, jstring s);
    const char* get() const { return chars_; }
    Text text() const { return {chars_, chars_ ? len_ : 0}; }

private:
    void release();
    JNIEnv* env_ = nullptr;
    jstring s_ = nullptr;
    const char* chars_ = nullptr;
    jsize len_ = 0;
};

// A free-text argument: the String's bytes in the platform's default
// character set, NUL-terminated, passed whole (length -1).  Absent when the
// String is null or any step fails.
class FreeText {
public:
    FreeText(JNIEnv* env, jstring s);
    ~FreeText() { std::free(text_); }
    FreeText(const FreeText&) = delete;
    FreeText& operator=(const FreeText&) = delete;

    const char* get() const { return text_; }
    Text text() const { return {text_, -1}; }

private:
    char* text_ = nullptr;
};

// A new NUL-terminated copy of a byte array, cut at its first zero byte
// (strncpy semantics); null when the elements or the memory cannot be had.
// The caller frees it.
char* jbyteArray2cstr(JNIEnv* env, jbyteArray array);
// String.getBytes() of the platform's default character set, a local
// reference; null when the class, the method or the call is unavailable.
jbyteArray javaGetBytes(JNIEnv* env, jstring s);

// Copies at most `size` - 1 leading bytes of a Java byte array into the
// zeroed buffer `out` of `size` bytes (the rest stays zero); the array's
// length, or -1 when the bytes cannot be had.
jsize copy_block(JNIEnv* env, jbyteArray array, char* out, jsize size);

// Full-message capture of a Java telegram (api type 100 start, 101 end),
// while the collector has capture on: any length is queued.  Always 0.
int save_tong_log4j(JNIEnv* env, jlong tid, jbyteArray tmsg, int8_t api_type);

}  // namespace varnix::jni
