// The reasons' texts.
#include "upstream/mqtt/reasons.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netdb.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <system_error>

namespace voq::mqtt
{

namespace
{

std::string SystemText(int number)
{
    return std::system_category().message(number);
}

std::string Place(const BrokerSettings& broker)
{
    return broker.host + ":" + std::to_string(broker.port);
}

// What the broker answered to CONNECT: the codes of MQTT 3.1.1 up to 5, those of MQTT 5 from 128.
std::string RefusalText(const BrokerSettings& broker, int answer)
{
    switch (answer) {
        case CONNACK_REFUSED_PROTOCOL_VERSION:
        case MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION:
            return "the broker does not speak this version of MQTT: set `protocol` to the other one";
        case CONNACK_REFUSED_IDENTIFIER_REJECTED:
        case MQTT_RC_CLIENTID_NOT_VALID:
            return "the broker refuses the client identifier \"" + broker.clientId + "\": set `client_id`";
        case CONNACK_REFUSED_SERVER_UNAVAILABLE:
        case MQTT_RC_SERVER_UNAVAILABLE:
        case MQTT_RC_SERVER_BUSY:
            return "the broker takes no connection at present";
        case CONNACK_REFUSED_BAD_USERNAME_PASSWORD:
        case CONNACK_REFUSED_NOT_AUTHORIZED:
        case MQTT_RC_BAD_USERNAME_OR_PASSWORD:
        case MQTT_RC_NOT_AUTHORIZED:
            return broker.user.empty() ? "the broker refuses a client without user or certificate that it knows"
                                       : "the broker refuses user or password";
        default:
            return std::string("the broker refuses the connection: ") + mosquitto_reason_string(answer);
    }
}

std::string DisconnectText(int answer)
{
    if (answer == MQTT_RC_SESSION_TAKEN_OVER) {
        return "another client took over: is the same `client_id`, or box name, used twice?";
    }
    return std::string("the broker ended the connection: ") + mosquitto_reason_string(answer);
}

// `result` is X509_V_OK when the broker was so fast that the library forgot it.
std::string CertificateText(const BrokerSettings& broker, long result)
{
    std::string text = "certificate verify failed: ";
    if (result != X509_V_OK) text += std::string(X509_verify_cert_error_string(result)) + ": ";
    if (result == X509_V_ERR_CERT_NOT_YET_VALID || result == X509_V_ERR_CERT_HAS_EXPIRED) {
        return text + "is the clock of this box right?";
    }
    return text + (broker.ca.empty() ? "set `ca` to the authority of the broker's certificate"
                                     : "is `ca` the authority of the broker's certificate?");
}

// "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed": what stands behind the last colon.
std::string ToldText(const std::string& told)
{
    const std::size_t colon = told.starts_with("OpenSSL") ? told.rfind(':') : std::string::npos;
    return colon == std::string::npos ? told : told.substr(colon + 1);
}

std::string UnansweredText(const BrokerSettings& broker, const Failure& failure)
{
    const std::string what = Place(broker) + (failure.late ? " takes the connection but does not answer"
                                                           : " ended the connection before it answered");
    return what + (broker.tls ? ": is it the broker's port for TLS, and does it accept this client's certificate?"
                              : ": is it the broker's port without TLS, and does it speak this version of MQTT?");
}

std::string TlsText(const BrokerSettings& broker, const Failure& failure)
{
    if (!broker.tls) return failure.told;
    if (failure.told.find("host name verification") != std::string::npos) {
        return "the broker's certificate is not for " + broker.host + ": is `host` the name that stands in it?";
    }
    const std::string told = ToldText(failure.told);
    if (failure.certificate != X509_V_OK || told.find("verify failed") != std::string::npos) {
        return CertificateText(broker, failure.certificate);
    }
    if (told.find("wrong version number") != std::string::npos) return Place(broker) + " does not speak TLS";
    if (told.find("certificate required") != std::string::npos) {
        return "the broker wants a certificate of the client: set `certificate` and `key`";
    }
    if (told.find("unexpected eof") != std::string::npos) return UnansweredText(broker, failure);
    return "TLS: " + told;
}

std::string ConnectText(const BrokerSettings& broker, const Failure& failure)
{
    if (failure.late || failure.number == ETIMEDOUT) {
        return "no answer from " + Place(broker) + ": is the address right, and the network up?";
    }
    if (failure.result == MOSQ_ERR_EAI) {
        return "\"" + broker.host + "\" is no known name: " + gai_strerror(failure.number);
    }
    if (failure.number == ECONNRESET) return UnansweredText(broker, failure);
    if (failure.number == ECONNREFUSED) return "connection refused: does a broker listen at " + Place(broker) + "?";
    return Place(broker) + ": " +
           (failure.result == MOSQ_ERR_ERRNO ? SystemText(failure.number) : mosquitto_strerror(failure.result));
}

std::string LostText(const BrokerSettings& broker, const Failure& failure)
{
    if (failure.result == MOSQ_ERR_KEEPALIVE) {
        return "no answer within " + std::to_string(broker.keepalive.count()) + " s: connection given up";
    }
    if (failure.result == MOSQ_ERR_ERRNO && failure.number != 0)
        return "connection lost: " + SystemText(failure.number);
    if (failure.result == MOSQ_ERR_CONN_LOST || failure.result == MOSQ_ERR_NO_CONN) {
        return std::string("the broker ended the connection") +
               (failure.brief ? ": is the same `client_id`, or box name, used twice?" : "");
    }
    return std::string("connection lost: ") + mosquitto_strerror(failure.result);
}

}  // namespace

std::string ReasonText(const BrokerSettings& broker, const Failure& failure)
{
    const bool connected = failure.stage == Stage::Connected;
    if (failure.answer >= 0) return connected ? DisconnectText(failure.answer) : RefusalText(broker, failure.answer);
    if (connected) return LostText(broker, failure);
    if (!failure.told.empty()) return TlsText(broker, failure);
    return failure.stage == Stage::Connecting ? ConnectText(broker, failure) : UnansweredText(broker, failure);
}

}  // namespace voq::mqtt
