// SPDX-License-Identifier: Apache-2.0
// Bus errors and the exception that carries them.
#include "SR_DBusError.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using sentrel::SR_DBusError;
using sentrel::SR_DBusException;

const char kName[] = "org.freedesktop.DBus.Error.InvalidArgs";
const char kText[] = "type mismatch";

int freed = 0;  // errors with content

}  // namespace

extern "C" {

// The linker leads the calls of dbus_error_free here.
void __real_dbus_error_free(DBusError* error);
void __wrap_dbus_error_free(DBusError* error);

void __wrap_dbus_error_free(DBusError* error) {
    freed += dbus_error_is_set(error) != 0;
    __real_dbus_error_free(error);
}

}  // extern "C"

namespace {

TEST(DBusErrorTest, AFreshErrorIsEmpty) {
    const SR_DBusError error;
    EXPECT_FALSE(error.IsSet());
    EXPECT_EQ(nullptr, error.Get()->name);
    EXPECT_EQ(nullptr, error.Get()->message);
}

TEST(DBusErrorTest, AnErrorFilledByLibdbusIsSet) {
    SR_DBusError error;
    dbus_set_error(error.Get(), kName, "number %d", 5);
    EXPECT_TRUE(error.IsSet());
    EXPECT_STREQ(kName, error.Get()->name);
    EXPECT_STREQ("number 5", error.Get()->message);
}

TEST(DBusErrorTest, TheObjectIsTheRecordAndIsNeverCopied) {
    EXPECT_EQ(sizeof(DBusError), sizeof(SR_DBusError));
    SR_DBusError error;
    EXPECT_EQ(static_cast<void*>(&error), static_cast<void*>(error.Get()));
    EXPECT_FALSE(std::is_copy_constructible<SR_DBusError>::value);
    EXPECT_FALSE(std::is_copy_assignable<SR_DBusError>::value);
    EXPECT_FALSE(std::is_polymorphic<SR_DBusError>::value);
}

TEST(DBusErrorTest, AnExceptionMadeFromTextsReturnsTheVeryPointers) {
    const SR_DBusException exception(kName, kText);
    EXPECT_EQ(kName, exception.name());
    EXPECT_EQ(kText, exception.what());
}

TEST(DBusErrorTest, AnExceptionEmptiesTheErrorItIsMadeFrom) {
    SR_DBusError error;
    dbus_set_error(error.Get(), kName, "%s", "made at run time");
    const char* const name = error.Get()->name;
    const char* const text = error.Get()->message;
    const SR_DBusException exception(error);
    EXPECT_FALSE(error.IsSet());
    EXPECT_EQ(nullptr, error.Get()->name);
    EXPECT_EQ(name, exception.name()) << "moved, not copied";
    EXPECT_EQ(text, exception.what()) << "moved, not copied";
    EXPECT_STREQ(kName, exception.name());
    EXPECT_STREQ("made at run time", exception.what());
}

TEST(DBusErrorTest, AnEmptiedErrorCanBeFilledAgain) {
    SR_DBusError error;
    dbus_set_error(error.Get(), kName, "%s", "first");
    const SR_DBusException first(error);
    dbus_set_error(error.Get(), "org.x.Second", "%s", "second");
    const SR_DBusException second(error);
    EXPECT_STREQ("first", first.what());
    EXPECT_STREQ("second", second.what());
    EXPECT_STREQ("org.x.Second", second.name());
}

TEST(DBusErrorTest, ACopyOutlivesTheException) {
    SR_DBusError error;
    dbus_set_error(error.Get(), kName, "%s", "kept");
    std::unique_ptr<SR_DBusException> first(new SR_DBusException(error));
    const char* const text = first->what();
    const SR_DBusException copy(*first);
    first.reset();
    EXPECT_EQ(text, copy.what());
    EXPECT_STREQ("kept", copy.what());
    EXPECT_STREQ(kName, copy.name());
}

TEST(DBusErrorTest, TheErrorIsFreedOnceWithTheLastCopy) {
    freed = 0;
    std::unique_ptr<SR_DBusException> first;
    {
        SR_DBusError error;
        dbus_set_error(error.Get(), kName, "%s", "counted");
        first.reset(new SR_DBusException(error));
    }
    EXPECT_EQ(0, freed) << "what the exception was made from is empty";
    std::unique_ptr<SR_DBusException> copy(new SR_DBusException(*first));
    first.reset();
    EXPECT_EQ(0, freed);
    copy.reset();
    EXPECT_EQ(1, freed);
}

TEST(DBusErrorTest, AnAssignedExceptionSharesTheError) {
    SR_DBusException target("org.x.Old", "old");
    {
        SR_DBusError error;
        dbus_set_error(error.Get(), kName, "%s", "new");
        const SR_DBusException source(error);
        target = source;
    }
    EXPECT_STREQ(kName, target.name());
    EXPECT_STREQ("new", target.what());
}

TEST(DBusErrorTest, AHandlerOfStandardExceptionsReadsTheMessage) {
    SR_DBusError error;
    dbus_set_error(error.Get(), kName, "%s", "for people");
    std::string text;
    try {
        throw SR_DBusException(error);
    } catch (const std::exception& exception) {
        text = exception.what();
    }
    EXPECT_EQ("for people", text);
}

TEST(DBusErrorTest, ACaughtExceptionKeptByAPointerStaysReadable) {
    std::exception_ptr kept;
    try {
        throw SR_DBusException(kName, kText);
    } catch (...) {
        kept = std::current_exception();
    }
    try {
        std::rethrow_exception(kept);
    } catch (const SR_DBusException& exception) {
        EXPECT_STREQ(kName, exception.name());
        EXPECT_STREQ(kText, exception.what());
    }
}

TEST(DBusErrorTest, CopiesMayBeDestroyedOnDifferentThreads) {
    SR_DBusError error;
    dbus_set_error(error.Get(), kName, "%s", "shared");
    const SR_DBusException exception(error);
    int wrong[4] = {};
    std::vector<std::thread> threads;
    for (int& mistakes : wrong) {
        threads.emplace_back([&mistakes, exception] {
            for (int i = 0; i < 1000; ++i) {
                const SR_DBusException copy(exception);
                mistakes += std::string(copy.what()) != "shared";
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const int mistakes : wrong) {
        EXPECT_EQ(0, mistakes);
    }
    EXPECT_STREQ("shared", exception.what());
}

TEST(DBusErrorTest, AnExceptionHoldsNothingButTheSharedError) {
    EXPECT_EQ(sizeof(std::exception) + sizeof(boost::shared_ptr<SR_DBusError>),
              sizeof(SR_DBusException));
    EXPECT_TRUE((std::is_base_of<std::exception, SR_DBusException>::value));
    EXPECT_TRUE(std::is_nothrow_copy_constructible<SR_DBusException>::value);
}

}  // namespace
