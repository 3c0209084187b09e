#include "receiver_control.h"

#include "receiver_json.h"

using namespace receiver_json;

HttpAnswer Control::serve(const HttpRequest &request) {
    HttpAnswer answer;
    const std::string order = request.path.substr(1);
    if (request.method == "GET" && order == "counts") {
        answer.body = service_.counts();
        return answer;
    }
    answer.type = "text/plain";
    answer.body = request.method == "POST" ? carry_out(order, request.body) : "no such question";
    answer.status = answer.body.empty() ? 200 : 400;
    return answer;
}

// An empty text, or what is wrong with the order.
std::string Control::carry_out(const std::string &order, const std::string &body) {
    JsonTree tree(cJSON_Parse(body.empty() ? "{}" : body.c_str()));
    if (!cJSON_IsObject(tree.get()))
        return "not a JSON object";
    if (order == "script")
        return script_.append(tree.get());
    if (order == "reset")
        script_.reset();
    else if (order == "expire_keys")
        store_.expire_keys();
    else if (order == "add_key")
        store_.add_key({json_text(tree.get(), "access_key"), json_text(tree.get(), "access_secret")}, "");
    else if (order == "strategy")
        store_.set_strategy(json_text(tree.get(), "device"),
                            {json_text(tree.get(), "id"), json_text(tree.get(), "content")});
    else if (order == "down")
        service_.down();
    else if (order == "up")
        service_.up();
    else
        return "unknown order " + order;
    return "";
}
