// SPDX-License-Identifier: Apache-2.0
// Calls to a member function held as a value. Callback binds an object and a method; it does not
// own the object, which must outlive it. Slot is a copyable holder whose copies share one callable.
#ifndef SENTREL_SR_CALLBACK_H
#define SENTREL_SR_CALLBACK_H

#include <boost/shared_ptr.hpp>

namespace sentrel {

// What can be called with an A and gives an R.
template <typename R, typename A>
class BaseCallback {
public:
    // Calls it; what that throws is passed on.
    virtual R call(A argument) const = 0;
    virtual ~BaseCallback() {}
};

template <typename C, typename R, typename A>
class Callback : public BaseCallback<R, A> {
public:
    // `target` is not owned.
    Callback(C* target, R (C::*function)(A)) : object(target), method(function) {}

    // Calls the method on the object.
    R call(A argument) const override { return (object->*method)(argument); }

private:
    C* object;
    R (C::*method)(A);
};

template <typename R, typename A>
class Slot {
public:
    // Shares `callable`, which must not be null when the slot is called.
    explicit Slot(boost::shared_ptr<BaseCallback<R, A> > callable) : callback(callable) {}

    // Calls the shared callable.
    R operator()(A argument) const { return callback->call(argument); }

private:
    boost::shared_ptr<BaseCallback<R, A> > callback;
};

}  // namespace sentrel

#endif
