// The walk of a connection: header, variable part, answer, and again.
#include "session.h"

#include "trans.h"

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include <utility>

namespace rehearsal {

Session::Session(Engine &engine, asio::ip::tcp::socket socket, std::string server,
                 const asio::ip::tcp::endpoint &client, std::uint64_t number)
    : engine_(engine), socket_(std::move(socket)), timer_(socket_.get_executor()) {
    fresh_.server = std::move(server);
    fresh_.client = client.address().to_string();
    fresh_.client_port = client.port();
    fresh_.connection = number;
    fresh_.accepted = Clock::now();
    asio::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    engine_.recorder().opened();
}

Session::~Session() {
    asio::error_code ignored;
    socket_.close(ignored);
    engine_.recorder().closed();
}

// A completion that goes on with `handler` and, on an error, lets go of the connection.
auto Session::then(Handler handler) {
    return [self = shared_from_this(), handler](const asio::error_code &error, auto...) {
        if (!error) {
            (*self.*handler)();
        }
    };
}

void Session::start() {
    asio::post(socket_.get_executor(), [self = shared_from_this()] { self->read_header(); });
}

void Session::read_header() {
    asio::async_read(socket_, asio::buffer(head_), then(&Session::on_header));
}

void Session::on_header() {
    exchange_ = fresh_;
    exchange_.request.header = decode_header(head_);
    exchange_.code = exchange_.request.header.code;
    exchange_.request_bytes.assign(head_.begin(), head_.end());
    exchange_.received = Clock::now();
    if (std::string problem = header_problem(exchange_.request.header); !problem.empty()) {
        refuse(std::move(problem));
        return;
    }
    read_body(exchange_.request.header.size);
}

void Session::read_body(std::uint32_t size) {
    body_.resize(size);
    asio::async_read(socket_, asio::buffer(body_), then(&Session::on_packet));
}

void Session::on_packet() {
    exchange_.received = Clock::now();
    exchange_.request_bytes.insert(exchange_.request_bytes.end(), body_.begin(), body_.end());
    const Header header = std::move(exchange_.request.header);
    if (std::string problem = decode_request(header, body_, exchange_.request); !problem.empty()) {
        refuse(std::move(problem));
        return;
    }
    number_ = engine_.arrived(exchange_);
    decide();
}

void Session::refuse(std::string problem) {
    exchange_.problem = std::move(problem);
    number_ = engine_.arrived(exchange_);
    deliver({.after = After::close});
}

void Session::decide() {
    if (auto answer = engine_.ask_hook(exchange_)) {
        deliver(std::move(*answer));
        return;
    }
    Decision decision = engine_.ask_cluster(exchange_);
    exchange_.note = decision.note;
    exchange_.outcome = decision.outcome;
    if (decision.script) {
        run_script(std::move(decision));
    } else {
        deliver(engine_.answer(exchange_, decision));
    }
}

void Session::run_script(Decision decision) {
    const ScriptOrder order = *decision.script;
    ScriptRun::start(socket_.get_executor(), order.file, order.timeout,
                     [self = shared_from_this(), decision = std::move(decision)](ScriptResult result) {
                         Decision now = decision;
                         now.status = result.status;
                         if (result.status == TRANS_RES_STAT_SUCCESS) {
                             self->exchange_.outcome.exitcode = now.outcome.exitcode = result.exitcode;
                             self->add_note("exit code " + std::to_string(result.exitcode));
                         }
                         self->deliver(self->engine_.answer(self->exchange_, now));
                     });
}

void Session::deliver(RawAnswer answer) {
    answer_ = std::move(answer);
    sent_ = 0;
    if (answer_.delay.count() > 0) {
        timer_.expires_after(answer_.delay);
        timer_.async_wait(then(&Session::send));
    } else {
        send();
    }
}

void Session::send() {
    if (sent_ == answer_.bytes.size()) {
        finish();
        return;
    }
    const std::size_t piece = answer_.gap.count() > 0 ? 1 : answer_.bytes.size() - sent_;
    asio::async_write(socket_, asio::buffer(answer_.bytes.data() + sent_, piece),
                      [self = shared_from_this()](const asio::error_code &error, std::size_t bytes) {
                          self->sent_ += bytes;
                          if (error) {
                              self->add_note("the client went away");
                              self->answer_.after = After::close;
                              self->finish();
                          } else {
                              self->send_next();
                          }
                      });
}

void Session::send_next() {
    if (answer_.gap.count() == 0 || sent_ == answer_.bytes.size()) {
        finish();
        return;
    }
    timer_.expires_after(answer_.gap);
    timer_.async_wait(then(&Session::send));
}

void Session::finish() {
    exchange_.answered = Clock::now();
    exchange_.done = true;
    answer_.bytes.resize(sent_);
    exchange_.response_bytes = std::move(answer_.bytes);
    exchange_.status = -1;
    if (exchange_.response_bytes.size() >= header_size) {
        exchange_.status = decode_header(std::span(exchange_.response_bytes).first<header_size>()).status;
    }
    engine_.done(number_, exchange_);
    if (answer_.after == After::keep) {
        read_header();
    } else {
        close(answer_.after);
    }
}

void Session::add_note(const std::string &note) {
    exchange_.note += (exchange_.note.empty() ? "" : ", ") + note;
}

void Session::close(After how) {
    asio::error_code ignored;
    if (how == After::reset) {
        socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    } else {
        socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    }
    socket_.close(ignored);
}

} // namespace rehearsal
