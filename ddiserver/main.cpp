// tamrel-ddi-server: the DDI server as a program, answering
// like a current hawkBit server, for testing any hawkBit client without a
// hawkBit installation. Every file of a --module (or of --artifacts) becomes
// an artifact of one deployment, served from the file (sparse files of any
// size work); every request and its body is printed, and what the server
// makes of the feedback ("action 1 closed: success").
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"
#include "ddiserver/hawkbittarget.h"
#include "ddiserver/serveddeployment.h"
#include "ddiserver/serveroptions.h"

namespace ddiserver = tamrel::ddiserver;

int main(int argc, char** argv) {
  ddiserver::ServerOptions settings;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--help") {
      std::fputs(ddiserver::ServerOptions::help().c_str(), stdout);
      return 0;
    }
  }
  if (!settings.parse(argc, argv)) {
    std::fprintf(stderr, "tamrel-ddi-server: %s (--help lists the options)\n",
                 settings.error().c_str());
    return 2;
  }
  for (std::string const* file : {&settings.clientCa, &settings.tlsCert, &settings.tlsKey}) {
    if (!file->empty() && access(file->c_str(), R_OK) != 0) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot read %s\n", file->c_str());
      return 2;
    }
  }
  if (!settings.clientCertOut.empty() && access(settings.clientCertOut.c_str(), W_OK) != 0) {
    std::fprintf(stderr, "tamrel-ddi-server: cannot write to %s\n", settings.clientCertOut.c_str());
    return 2;
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  // Every digest is computed before the port is bound: a client that finds
  // the server always finds the deployment.
  ddiserver::ServedDeployment served(settings);
  if (!served.read()) {
    std::fprintf(stderr, "tamrel-ddi-server: %s\n", served.error().c_str());
    return 2;
  }

  // Every request is printed as it arrives, with what the target makes of
  // it right after; one lock keeps their lines together.
  std::mutex output;
  // Declared before the server, so that it outlives the server's threads.
  std::unique_ptr<ddiserver::HawkbitTarget> target;
  ddiserver::DdiServer::Options options;
  options.port = settings.port;
  options.https = settings.https;
  options.certFile = settings.tlsCert;
  options.keyFile = settings.tlsKey;
  options.clientCaFile = settings.clientCa;
  options.clientCertOut = settings.clientCertOut;
  // Connections wait in the backlog until everything is set up.
  options.deferStart = true;
  options.onRequest = [&](ddiserver::RecordedRequest const& request) {
    std::lock_guard<std::mutex> guard(output);
    std::string const range = request.header("Range");
    std::printf("%s %s%s%s%s\n", request.method.c_str(), request.path.c_str(),
                request.query.empty() ? "" : "?", request.query.c_str(),
                range.empty() ? "" : ("  [Range: " + range + "]").c_str());
    if (!request.body.empty()) std::printf("    %s\n", request.body.c_str());
    std::fflush(stdout);
  };
  std::unique_ptr<ddiserver::DdiServer> made;
  try {
    made = std::make_unique<ddiserver::DdiServer>(options);
  } catch (std::system_error const& error) {
    // A port given with --port that another program holds: a usage error.
    std::fprintf(stderr, "tamrel-ddi-server: %s\n", error.what());
    return error.code() == std::errc::address_in_use ? 2 : 1;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "tamrel-ddi-server: %s\n", error.what());
    return 1;
  }
  ddiserver::DdiServer& server = *made;
  if (!settings.caOut.empty()) {
    std::ifstream in(server.caFile(), std::ios::binary);
    std::ofstream out(settings.caOut, std::ios::binary);
    if (!(out << in.rdbuf()) || !out.flush()) {
      std::fprintf(stderr, "tamrel-ddi-server: cannot write %s\n", settings.caOut.c_str());
      return 2;
    }
  }
  if (!settings.token.empty()) server.setRequireToken(settings.token);
  if (!settings.gatewayToken.empty()) server.setGatewayToken(settings.gatewayToken);
  std::string const base = server.baseUrl();

  ddiserver::HawkbitTarget::Options targetOptions;
  targetOptions.baseUrl = base;
  targetOptions.controllerPath = server.controllerPath();
  targetOptions.sleep = settings.sleep;
  targetOptions.askConfigData = settings.askConfigData;
  targetOptions.cancelAfterPolls = settings.cancelAfterPolls;
  targetOptions.windowOpensAt = settings.windowOpensAt;
  targetOptions.confirmRequired = settings.confirmRequired;
  targetOptions.onEvent = [&](std::string const& line) {
    std::lock_guard<std::mutex> guard(output);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  };
  target = std::make_unique<ddiserver::HawkbitTarget>(targetOptions);
  server.setHandler(
      [&target](ddiserver::RecordedRequest const& request, ddiserver::DdiServer::Answer& answer) {
        return target->answer(request, answer);
      });

  ddiserver::DeploymentDocument const deployment = served.serve(server);
  if (!deployment.chunks.empty()) {
    target->assign(deployment);
    if (!settings.cancel.empty()) target->requestCancel(settings.cancel);
  }
  if (isFault(settings.poll)) server.setFault(server.controllerPath(), settings.poll);
  if (isFault(settings.deployment)) {
    server.setFault(server.controllerPath() + "/deploymentBase/" + settings.action,
                    settings.deployment);
  }
  if (isFault(settings.confirmation)) {
    server.setFault(server.controllerPath() + "/confirmationBase/" + settings.action,
                    settings.confirmation);
  }
  if (isFault(settings.config)) {
    server.setFault(server.controllerPath() + "/configData", settings.config);
  }
  if (isFault(settings.feedback)) {
    server.setFault(server.controllerPath() + "/deploymentBase/" + settings.action + "/feedback",
                    settings.feedback);
  }
  {
    // The server's lock is taken before this one on its threads, never after.
    std::string const controller = server.controllerPath();
    std::lock_guard<std::mutex> guard(output);
    std::printf("DDI server on %s%s (tenant DEFAULT, controller dev01)\n", base.c_str(),
                controller.c_str());
    std::fflush(stdout);
  }
  server.start();
  int number = 0;
  sigwait(&stop, &number);
  return 0;
}
