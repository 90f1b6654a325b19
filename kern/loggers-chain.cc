// loggers-chain.cc: the chain logger, which hands every line to two
// members, and the chain operations on the process logger.
#include "loggers.h"

#include <algorithm>
#include <string>
#include <typeinfo>

#include "exceptions.h"
#include "loggers-int.h"

using namespace kern_n::detail;

namespace {

// Demangled dynamic type of a logger, for the chain's complaints.
std::string type_name_of(if_logger_t const& l) {
    kern_n::demangle_t d;
    return d.name(typeid(l));
}

}  // namespace

// --- chain logger ----------------------------------------------------------------------

if_logger_t* chain_logger_t::create(if_logger_t* first, if_logger_t* second) {
    return new chain_logger_impl_t(first, second == first ? nullptr : second);
}

void chain_logger_t::add(if_logger_t* l) { if_logger_t::Log = create(l, if_logger_t::Log); }

void chain_logger_t::remove(if_logger_t* l) {
    if (!l) return;
    if_logger_t* const root = if_logger_t::Log;
    if (!root) QVL_THROW(BUG_exception, "zero logger");
    chain_logger_impl_t* node = dynamic_cast<chain_logger_impl_t*>(root);
    if (!node) QVL_THROW(BUG_exception, "bad root: %s", type_name_of(*root).c_str());
    chain_logger_impl_t* prev = nullptr;
    for (;;) {
        if (node->first == l) {
            if (!prev) {
                if (!node->second) QVL_THROW(BUG_exception, "zero new root");
                if_logger_t::Log = node->second;
            } else {
                prev->second = node->second;
            }
            node->first = nullptr;
            node->second = nullptr;
            delete node;
            return;
        }
        if_logger_t* const next = node->second;
        if (!next) QVL_THROW(BUG_exception, "zero chain");
        chain_logger_impl_t* const chain = dynamic_cast<chain_logger_impl_t*>(next);
        if (!chain) QVL_THROW(BUG_exception, "bad chain: %s", type_name_of(*next).c_str());
        prev = node;
        node = chain;
    }
}

void chain_logger_t::collect_info(std::string& out) {
    if_logger_t* const root = if_logger_t::Log;
    if (!root) {
        out = "zero logger";
        return;
    }
    chain_logger_impl_t const* node = dynamic_cast<chain_logger_impl_t const*>(root);
    if (!node) {
        out = "root is not chain: " + type_name_of(*root);
        return;
    }
    // The static type of the members: the text shows which are present.
    kern_n::demangle_t d;
    char const* const member = d.name(typeid(node->first));
    for (; node; node = dynamic_cast<chain_logger_impl_t const*>(node->second)) {
        if (!out.empty()) out.append("; ");
        out.append(member).append("( ").append(node->first ? member : "null").append(", ");
        out.append(node->second ? member : "null").append(" )");
    }
}

chain_logger_impl_t::chain_logger_impl_t(if_logger_t* first_, if_logger_t* second_)
    : if_logger_t(INFO), first(first_), second(second_) {}

chain_logger_impl_t::~chain_logger_impl_t() {
    delete first;
    delete second;
}

bool chain_logger_impl_t::is_stderr() const { return has_stderr_again(first) || has_stderr_again(second); }

size_t chain_logger_impl_t::write(char const*) {
    QVL_THROW(BUG_exception, "chain_logger_impl_t::write( const char* ) called");
}

void chain_logger_impl_t::log_va(msgclass_t c, char const* fmt, va_list ap) {
    if (first) {
        va_copy_t copy(ap);
        first->log_va(c, fmt, copy.get());
    }
    if (second) {
        va_copy_t copy(ap);
        second->log_va(c, fmt, copy.get());
    }
}

void chain_logger_impl_t::set_level(msgclass_t c) {
    if_logger_t::set_level(c);
    if (first) first->set_level(c);
    if (second) second->set_level(c);
}

if_logger_t::msgclass_t chain_logger_impl_t::get_level() const {
    msgclass_t const a = first ? first->get_level() : 0;
    msgclass_t const b = second ? second->get_level() : 0;
    return std::max(a, b);
}

bool chain_logger_impl_t::is_logged(msgclass_t c) {
    return (first && first->is_logged(c)) || (second && second->is_logged(c));
}

void chain_logger_impl_t::insert_handler(if_logger_error_t* h) {
    if_logger_t::insert_handler(h);
    if (first) first->insert_handler(h);
    if (second) second->insert_handler(h);
}

void chain_logger_impl_t::remove_handler(if_logger_error_t* h) {
    if_logger_t::remove_handler(h);
    if (first) first->remove_handler(h);
    if (second) second->remove_handler(h);
}

bool chain_logger_impl_t::has_stderr_again(if_logger_t const* l) {
    if (!l) return false;
    // The test is against the facade, which the descriptor loggers made by
    // fd_logger_t::create do not derive from: for them it fails. init_logger
    // relies on this answer as it is.
    if (dynamic_cast<fd_logger_t const*>(l)) return l->is_stderr();
    if (chain_logger_impl_t const* c = dynamic_cast<chain_logger_impl_t const*>(l))
        return has_stderr_again(c->first) || has_stderr_again(c->second);
    return false;
}
