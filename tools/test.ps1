# Runs the GoogleTest programs of a build folder on Windows (PowerShell 5 or newer, no modules):
#
#   powershell -ExecutionPolicy Bypass -File tools\test.ps1 FOLDER
#
# FOLDER is a build folder, or a copy of these from a cross-built one: its programs, tests\, fixtures\ and
# development-key\. Counts and ends like tools/test.sh: the last line counts the cases, and the exit code is 0
# only when some ran, none failed, none was skipped, and nothing was left behind. (Not run on a Windows
# machine yet.)
param([Parameter(Mandatory = $true)][string]$Folder)
Set-StrictMode -Version 2
$ErrorActionPreference = 'Stop'

$Folder = (Resolve-Path $Folder).Path.TrimEnd('\')
# Tests create their folders in the temporary one: an empty one of our own shows what they leave behind.
$temporary = Join-Path ([IO.Path]::GetTempPath()) "talvex-tests-$PID"
New-Item -ItemType Directory -Path $temporary | Out-Null
$env:TEMP = $temporary
$env:TMP = $temporary

$output = "$temporary.output"
$passed = 0
$failed = 0
$skipped = 0
Push-Location $Folder
foreach ($program in Get-ChildItem (Join-Path $Folder 'tests') -Filter '*_test.exe' | Sort-Object Name) {
  Write-Host "== $($program.Name)"
  $process = Start-Process $program.FullName '--gtest_color=no' -PassThru -NoNewWindow `
    -RedirectStandardOutput $output -RedirectStandardError "$output.errors"
  $null = $process.Handle  # without it, PowerShell 5 forgets the exit code
  $ended = $process.WaitForExit(3600000)
  if (-not $ended) {
    Write-Host 'Still running after an hour: ended.'
    $process.Kill()
    $process.WaitForExit()
  }
  $lines = @(Get-Content $output) + @(Get-Content "$output.errors")
  $ended_well = $ended -and $process.ExitCode -eq 0 -and @($lines -match '^\[  PASSED  \]').Count -ne 0
  $bad = @($lines -match '^\[  FAILED  \] .* \([0-9]+ ms\)').Count
  if (-not $ended_well) {
    $lines | Write-Host
    $bad = [Math]::Max($bad, 1)  # a crash, which no line reports
  }
  $lines -match '^counted: ' | Write-Host
  $passed += @($lines -match '^\[       OK \] ').Count
  $failed += $bad
  $skipped += @($lines -match '^\[  SKIPPED \] .* \([0-9]+ ms\)').Count
}
Pop-Location

# A program that was just told to exit gets two seconds to do so.
function Get-Left {
  Get-Process | Where-Object {
    $_.Path -and ($_.Path.StartsWith("$Folder\", [StringComparison]::OrdinalIgnoreCase) -or
      $_.Path.StartsWith("$temporary\", [StringComparison]::OrdinalIgnoreCase))
  }
}
for ($i = 0; $i -lt 20 -and @(Get-Left).Count -ne 0; ++$i) { Start-Sleep -Milliseconds 100 }
foreach ($process in @(Get-Left)) {
  Write-Host "Still running at the end: $($process.Path)"
  ++$failed
}
foreach ($item in @(Get-ChildItem $temporary -Force)) {
  Write-Host "Left behind: $($item.FullName)"
  ++$failed
}
Remove-Item $temporary, $output, "$output.errors" -Recurse -Force -ErrorAction SilentlyContinue

if ($skipped -ne 0) { Write-Host "$skipped skipped" }
Write-Host "$passed passed, $failed failed"
exit [int]($passed -eq 0 -or $failed -ne 0 -or $skipped -ne 0)
