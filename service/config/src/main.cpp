#include "ConfigFile.h"
#include "ConfigService.h"
#include "zelt/LogClient.h"
#include "zelt/Paths.h"
#include "zelt/ServiceRunner.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

namespace {

int Check(const std::string& path) {
  const zelt::ParsedConfig parsed = zelt::ReadConfigFile(path);
  for (const std::string& problem : parsed.problems) {
    std::cerr << problem << '\n';
  }
  if (!parsed.problems.empty()) {
    return EXIT_FAILURE;
  }
  std::cout << path << ": ok: " << zelt::Summary(parsed.record) << '\n';
  return EXIT_SUCCESS;
}

int Run(const std::string& path) {
  zelt::BlockReloadSignal();  // before the file is read, so that none is lost
  zelt::SetLogIdentifier("config");
  const zelt::ParsedConfig parsed = zelt::ReadConfigFile(path);
  for (const std::string& problem : parsed.problems) {
    ZELT_LOG(zelt::kLogError, zelt::kConfigLogCategory) << problem;
  }
  if (!parsed.problems.empty()) {
    ZELT_LOG(zelt::kLogError, zelt::kConfigLogCategory)
        << "Cannot start with " << parsed.problem_count << " problem(s) in " << path;
    return EXIT_FAILURE;
  }
  return zelt::ServiceRunner::RunService(
      [&](std::shared_ptr<zelt::ServiceModel> model) {
        return std::make_shared<zelt::ConfigService>(std::move(model), path, parsed.record);
      },
      "Config", {}, {});
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Publishes the configuration of the camera; reads its file again on SIGHUP.",
               "zelt-config");
  std::string path = zelt::ConfigFile();
  std::string check;
  app.set_version_flag("--version", KOVA_VERSION);
  app.add_option("--file", path, "The configuration file")->capture_default_str();
  app.add_option(
         "--check", check,
         "Check FILE (at most 1 MiB) and exit: 0 when nothing is wrong with it, else the first "
         "20 problems are told")
      ->type_name("FILE");
  CLI11_PARSE(app, argc, argv);
  return app.count("--check") == 0 ? Run(path) : Check(check);
}
