#pragma once
// Frame-rate meter for log lines: a sliding window of the latest frame
// intervals, in OpenCV tick units. One meter belongs to one caller.

#include <string>
#include <vector>

namespace TOLVIXO {

class FPSCalc {
  public:
    FPSCalc();
    ~FPSCalc();

    // Called once per frame with cv::getTickCount(); returns the warm-up text
    // for the first 30 calls and the rate ("%f") after that.
    std::string showFPS(double tick);

  private:
    int count_;
    std::vector<double> intervals_;
    double lastTick_;
    double intervalSum_;
};

} // namespace TOLVIXO
