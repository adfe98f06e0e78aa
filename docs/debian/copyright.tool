Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: quilmrun

Files: *
Copyright: 2026 the quilmrun maintainers
License: Expat

Files: usr/bin/quilmrun
Copyright: 2026 the quilmrun maintainers
           2008-2019 Dave Benson and the protobuf-c authors
License: Expat and BSD-2-Clause
Comment: protobuf-c is linked statically, for the runtime library to use.

Files: usr/share/quilmrun/companions/charts/*
Copyright: 2014-2024 Chart.js Contributors
           2016-2024 chartjs-plugin-annotation Contributors
           2016-2024 chartjs-plugin-zoom Contributors
License: Expat

Files: usr/share/quilmrun/examples/digits/images/*
Copyright: 1998 E. Alpaydin, C. Kaynak
License: CC-BY-4.0
 https://creativecommons.org/licenses/by/4.0/legalcode
Comment: Optical Recognition of Handwritten Digits, UCI Machine Learning
 Repository, doi:10.24432/C50P49; the first test pictures of each digit, as raw
 bytes.

Files: usr/share/quilmrun/examples/ecg/data/*
Copyright: 1980-2005 George B. Moody and Roger G. Mark
License: ODC-By-1.0
 https://opendatacommons.org/licenses/by/1-0/
Comment: MIT-BIH Arrhythmia Database, record 208, doi:10.13026/C2F305; cut into
 frames and scaled.

Files: usr/share/quilmrun/examples/detection/coins.bin
Copyright: none known
License: public-domain
 A photograph of the Brooklyn Museum Collection with no known copyright
 restrictions, as scikit-image carries it; reduced.

Files: usr/share/quilmrun/examples/report/photographs/*
Copyright: none
License: CC0-1.0 and public-domain
 https://creativecommons.org/publicdomain/zero/1.0/legalcode
Comment: Cut from pictures of scikit-image: brick, grass, gravel, cat and coffee
 are under CC0; sky is NASA's, in the public domain; coins (Brooklyn Museum) and
 tissue have no known copyright restrictions.

License: Expat
 Permission is hereby granted, free of charge, to any person obtaining a copy
 of this software and associated documentation files (the "Software"), to deal
 in the Software without restriction, including without limitation the rights
 to use, copy, modify, merge, publish, distribute, sublicense, and/or sell
 copies of the Software, and to permit persons to whom the Software is
 furnished to do so, subject to the following conditions:
 .
 The above copyright notice and this permission notice shall be included in all
 copies or substantial portions of the Software.
 .
 THE SOFTWARE IS PROVIDED "AS IS", WITHOUT WARRANTY OF ANY KIND, EXPRESS OR
 IMPLIED, INCLUDING BUT NOT LIMITED TO THE WARRANTIES OF MERCHANTABILITY,
 FITNESS FOR A PARTICULAR PURPOSE AND NONINFRINGEMENT. IN NO EVENT SHALL THE
 AUTHORS OR COPYRIGHT HOLDERS BE LIABLE FOR ANY CLAIM, DAMAGES OR OTHER
 LIABILITY, WHETHER IN AN ACTION OF CONTRACT, TORT OR OTHERWISE, ARISING FROM,
 OUT OF OR IN CONNECTION WITH THE SOFTWARE OR THE USE OR OTHER DEALINGS IN THE
 SOFTWARE.

License: BSD-2-Clause
 Redistribution and use in source and binary forms, with or without
 modification, are permitted provided that the following conditions are met:
 .
  * Redistributions of source code must retain the above copyright notice,
    this list of conditions and the following disclaimer.
  * Redistributions in binary form must reproduce the above copyright notice,
    this list of conditions and the following disclaimer in the documentation
    and/or other materials provided with the distribution.
 .
 THIS SOFTWARE IS PROVIDED BY THE COPYRIGHT HOLDERS AND CONTRIBUTORS "AS IS"
 AND ANY EXPRESS OR IMPLIED WARRANTIES, INCLUDING, BUT NOT LIMITED TO, THE
 IMPLIED WARRANTIES OF MERCHANTABILITY AND FITNESS FOR A PARTICULAR PURPOSE ARE
 DISCLAIMED. IN NO EVENT SHALL THE COPYRIGHT OWNER OR CONTRIBUTORS BE LIABLE
 FOR ANY DIRECT, INDIRECT, INCIDENTAL, SPECIAL, EXEMPLARY, OR CONSEQUENTIAL
 DAMAGES (INCLUDING, BUT NOT LIMITED TO, PROCUREMENT OF SUBSTITUTE GOODS OR
 SERVICES; LOSS OF USE, DATA, OR PROFITS; OR BUSINESS INTERRUPTION) HOWEVER
 CAUSED AND ON ANY THEORY OF LIABILITY, WHETHER IN CONTRACT, STRICT LIABILITY,
 OR TORT (INCLUDING NEGLIGENCE OR OTHERWISE) ARISING IN ANY WAY OUT OF THE USE
 OF THIS SOFTWARE, EVEN IF ADVISED OF THE POSSIBILITY OF SUCH DAMAGE.
