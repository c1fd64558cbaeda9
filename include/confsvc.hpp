/*
 * confsvc.hpp - the interface for plugins in C++: header only, above conf_supervisor.h and
 * conf_values.h, with nothing but the standard library. C++17 and later. A program needs version
 * 1.1 of the interface at run time, as for those two.
 *
 *     #include <confsvc.hpp>
 *
 *     int main()
 *     {
 *         std::string greeting = "Hello";
 *         confsvc::plugin hello("hello");
 *         hello.on_change("/hello:settings", [&](const confsvc::change &change) {
 *             const auto now = change.values();
 *             greeting = now->text("greeting").value_or("Hello");
 *             if (greeting.size() > 80) {
 *                 throw confsvc::refusal(EINVAL, "a greeting has at most 80 characters");
 *             }
 *         });
 *         hello.on_status("/hello:state", [&](const confsvc::query &, confsvc::output &out) {
 *             out.open("state").add("length", greeting.size());
 *         });
 *         hello.run();
 *     }
 *
 * Errors. An exception that leaves a handler becomes the error reply: a refusal, and every other
 * confsvc::error, with its code and text, another std::exception with code -1 and its what(). What
 * leaves joined, lost, kicked_off or posted work goes to on_failure(). None meets the code of C.
 * Every function that throws has a form named try_..., which returns the error instead; with
 * -fno-exceptions only those are there, and a handler returns what it would throw:
 *
 *     return confsvc::refusal(EINVAL, "a greeting has at most 80 characters");
 *
 * Lifetimes. What handlers are given lives during the call, as do texts and nodes that come from
 * it. What is pulled belongs to its owner, confsvc::elements. The owners of this interface wipe
 * what they held: elements, output, secret. A std::string does not.
 *
 * Threads. As in C: all on the thread of the loop but plugin::post(), plugin::stop() and notify().
 * Handlers may make requests, and may stop or destroy the plugin; what they have captured lives
 * until they return.
 */
#ifndef CONFSVC_HPP
#define CONFSVC_HPP

#include "confsvc/basics.hpp"
#include "confsvc/node.hpp"
#include "confsvc/output.hpp"
#include "confsvc/plugin.hpp"
#include "confsvc/request.hpp"

#endif
